// What the member processes of the soak share: their messages, bodies that show every change, and the loop that obeys
// the driver. A member is this program in another role.
#pragma once

#include "bench/compare/Bus.h"
#include "campaigns/soak/Tally.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::Soak {

using Compare::Now;

inline constexpr int kEchoModule = 0x900000;
inline constexpr int kAbsentModule = 0x900001; // nobody ever serves it
inline constexpr int kServiceModule = 0x900010;
inline constexpr int kRowsModule = 0x900011;
inline constexpr int kPublisherModule = 0x900020;
inline constexpr int kFirstViewerModule = 0x900030;
inline constexpr int kFirstAskerModule = 0x900100;
inline constexpr int kFirstVisitorModule = 0x910000;

enum Message : int {
    kAsk = 1,    // the echo module answers with the same body
    kAnswer = 2, // to kAsk
    kPlain = 3,  // is only counted
    kAsking = 4, // its callback asks the echo module
    kTaken = 5,  // an acknowledgement; the correlation id says of what
    kLetter = 6, // a publication or broadcast
};

inline constexpr unsigned int kNoLimit = 0xFFFFFFFF;
// How long members wait for what must come, on a machine that does other work as well.
inline constexpr double kPatienceSeconds = 5;

// A body that differs for every number and holds lower-case letters and digits. It has at least 16 bytes.
std::string Body(std::uint32_t number, std::size_t size);
// True when it is the body of the item's correlation id, unchanged.
bool IsIntact(const TagIPCMessageItem& item);
// Changes every letter in place, as a callback may do with its bytes.
void Edit(TagIPCMessageItem& item);

// The item borrows the body.
TagIPCMessageItem Item(int to, int message, std::uint32_t number, std::string_view body = {});
// Tells the item's sender that it was taken.
void Acknowledge(const IPCMessageClient& client, const TagIPCMessageItem& item);

// Asks the echo module and waits. False: no answer in time, or a wrong one.
bool AskEcho(const IPCMessageClient& client, std::uint32_t number, std::size_t bytes);

// Looks every half millisecond. False: not true within that time.
bool AwaitThat(double seconds, const std::function<bool()>& isTrue);

using Orders = std::map<std::string, std::function<void(const Settings& order)>>;

// Says "ready", answers every order of the driver with the figures, and ends with its standard input. Every member
// knows "begin" (forget the figures) and "look" (nothing but tell them).
void Obey(Tally& tally, const Orders& orders = {});

// The roles. Each returns when the driver wants its end.
void PlayEcho(const Settings& settings);
void PlayAsker(const Settings& settings); // number
void PlayService(const Settings& settings);
void PlayRows(const Settings& settings);
void PlayPublisher(const Settings& settings);
void PlayViewer(const Settings& settings); // module
void PlayFlooder(const Settings& settings);
void PlayNewcomer(const Settings& settings); // module
void PlayVisitor(const Settings& settings);  // module stops

} // namespace Vantor::Sentrix::Soak
