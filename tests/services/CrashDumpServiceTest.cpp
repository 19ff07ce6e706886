// The crash-dump service: its parser with dumps that are made here, and the program on a bus of its own.
#include "services/crashdump/DumpHeader.h"
#include "tests/support/BusProgram.h"
#include "veyrasvc/diagnosis/BSODClient.h"
#include "veyrasvc/diagnosis/JsonText.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <map>

namespace Vantor::Sentrix::CrashDump {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono;

using Fields = std::vector<std::array<std::uint64_t, 3>>; // offset, value, width

std::string Image(std::string bytes, std::size_t size, const Fields& fields, bool big = false) {
    bytes.resize(size);
    for (const auto& [at, value, width] : fields) {
        for (std::size_t i = 0; i < width; ++i) {
            bytes[big ? at + width - 1 - i : at + i] = static_cast<char>(value >> (8 * i));
        }
    }
    return bytes;
}

std::string Note(std::uint64_t type, std::size_t size, std::uint64_t signal, bool big) {
    const Fields fields = {{0, 5, 4}, {4, size, 4}, {8, type, 4}, {32, signal, 2}};
    return Image("", 20 + size, fields, big).replace(12, 4, "CORE");
}

// Its notes, in the second segment: a thread hit by signal 11, one that was not, and the process sshd.
std::string Core(bool wide, bool big, std::size_t notesAt = 256, std::uint64_t type = 4) {
    const std::size_t word = wide ? 8 : 4;
    const std::size_t entry = wide ? 56 : 32;
    const std::string process = Note(3, wide ? 136 : 124, 0, big).replace(wide ? 60 : 48, 4, "sshd");
    const std::string notes = Note(1, 148, 11, big) + Note(1, 148, 5, big) + process;
    const Fields ident = {{4, word / 4, 1}, {5, big + 1U, 1}, {16, type, 2}, {24 + word, 64, word}};
    const Fields table = {{30 + 3 * word, entry, 2}, {32 + 3 * word, 2, 2}, {64, 1, 4}, {64 + entry, 4, 4}};
    const Fields place = {{64 + entry + word, notesAt, word}, {64 + entry + 4 * word, notes.size(), word}};
    return Image(Image(Image("\177ELF", notesAt, ident, big), notesAt, table, big), notesAt, place, big) + notes;
}

std::string Kernel(std::string magic, std::uint64_t code, std::uint64_t at, std::uint64_t width) {
    return Image(std::move(magic), 0x80, {{code, 0xD1, 4}, {at, 1, width}, {at + 3 * width, 1U << 31, width}});
}

std::string Mini(std::uint64_t streams) {
    const Fields head = {{4, 0x1234A793, 4}, {8, streams, 4}, {12, 32, 4}, {20, 1600000000, 4}};
    return Image(Image("MDMP", 128, head), 128, {{32, 3, 4}, {44, 6, 4}, {52, 64, 4}, {72, 0xC0000005, 4}});
}

// Type, process, signal, exception, time, stop code and last parameter; "-": not told.
std::vector<std::string> Findings(const DumpHeader& header) {
    const auto text = [](const auto& value) { return value ? std::to_string(*value) : "-"; };
    const std::string stop = header.stop ? std::to_string(header.stop->code) : "-";
    return {header.type == DumpType::Unknown ? "-" : NameOf(header.type),
            header.process.empty() ? "-" : header.process,
            text(header.signal),
            text(header.exceptionCode),
            text(header.time),
            stop,
            header.stop ? std::to_string(header.stop->parameters[3]) : "-"};
}

const std::vector<std::string> kCore = {"elf-core", "sshd", "11", "-", "-", "-", "-"};
const std::vector<std::string> kKernel = {"kernel-dump", "-", "-", "-", "-", "209", "2147483648"};
const std::pair<std::string, std::vector<std::string>> kDumps[] = {
    {Core(true, false), kCore},
    {Core(false, false), kCore},
    {Core(true, true), kCore},
    {Core(false, true), kCore},
    {Kernel("PAGEDU64", 0x38, 0x40, 8), kKernel},
    {Kernel("PAGEDUMP", 0x28, 0x2C, 4), kKernel},
    {Mini(1), {"minidump", "-", "-", "-", "1600000000", "-", "-"}},
    {Mini(0xFFFFFFFF), {"minidump", "-", "-", "3221225477", "1600000000", "-", "-"}}};

// A dump that is cut tells no more than the whole, and nothing else; one with flipped bits tells something.
TEST(DumpHeader, TellsWhatTheDumpSaysAndSurvivesCutsAndLies) {
    for (const auto& [bytes, findings] : kDumps) {
        EXPECT_EQ(Findings(ParseDumpHeader(bytes)), findings);
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            const std::vector<char> part(bytes.data(), bytes.data() + size); // with nothing of the rest behind it
            const DumpHeader cut = ParseDumpHeader({part.data(), part.size()});
            EXPECT_TRUE(cut.type != DumpType::Unknown || !cut.error.empty()) << size;
            for (std::size_t i = 0; i < findings.size(); ++i) {
                EXPECT_TRUE(Findings(cut)[i] == "-" || Findings(cut)[i] == findings[i]) << size;
            }
            for (const int flip : {0x01, 0x80, 0xFF}) {
                std::string lie = bytes;
                lie[size] = static_cast<char>(lie[size] ^ flip);
                const DumpHeader header = ParseDumpHeader(lie);
                EXPECT_TRUE(header.type != DumpType::Unknown || !header.error.empty()) << size;
            }
        }
    }
    EXPECT_EQ(ParseDumpHeader(Core(true, false, 256, 2)).error, "an ELF file, but no core");
    EXPECT_FALSE(ParseDumpHeader(Core(true, true, kHeaderBytes)).error.empty()) << "its notes are out of reach";
    EXPECT_EQ(ReadDumpHeader(fs::temp_directory_path()).error, "no file");
}

struct Asker final : BSODClient {
    using BSODClient::BSODClient;
    ~Asker() { EndHooks(); }
    void OnRecvBsodAnalysis(TagIPCMessageItem& item) override { messages.Put(ParseJson(item.data).root); }
    // A whole run by file name, the last message by none; the bus may deliver them in any order.
    std::map<std::string, Json::Value> Outcome() {
        std::map<std::string, Json::Value> run;
        while (!run.contains("") || run.size() <= run[""]["Analysed"].asUInt() + run[""]["Unreadable"].asUInt()) {
            const Json::Value message = messages.Take().value();
            run[fs::path(message["File"].asString()).filename().string()] = message;
        }
        return run;
    }
    Mailbox<Json::Value> messages;
};

TEST(CrashDumpService, AnswersOnTheBus) {
    const Role host("host");
    const fs::path folder = fs::temp_directory_path() / ("crashdumps-" + std::to_string(GetCurrentProcessId()));
    fs::create_directories(folder / "within");
    const auto store = [&](const std::string& name, const std::string& bytes, seconds time) {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        fs::last_write_time(folder / name, file_clock::from_sys(sys_seconds(time)));
        return (folder / name).string();
    };
    const std::string rubbish = store("rubbish", "x", seconds(1500000000));
    const std::string kernel = store("kernel", kDumps[4].first, seconds(1700000000));
    const std::string core = store("core", kDumps[0].first, seconds(1600000000));
    Support::ChildProcess service;
    ASSERT_TRUE(service.Start(SERVICE_PROGRAM, {"--folder", folder.string()}, Support::ChildProcess::Output::Pipe));
    ASSERT_EQ(service.ReadLine(60000), "veyra-crashdumpd: serving module 0x830000");

    Asker asker(kMe);
    EXPECT_EQ(asker.CancelAnalysis(), -1) << "there is none";
    const IPCMessageClient stranger(kOther, false, false);
    for (const int id : {0x82000c, 0x82000e, 0x82000f, 0x10005, 7}) {
        stranger.PostIPCMessage(Item(0x830000, id, Pattern(1 << 20)));
    }
    std::list<std::string> dumps;
    double status = -1;
    asker.GetBsodHistory(dumps, status);
    EXPECT_EQ(std::pair(status, dumps), std::pair(0.0, std::list{kernel, core, rubbish}));
    asker.StartBsodAnalysis();
    auto outcome = asker.Outcome();
    EXPECT_EQ(outcome["core"]["Text"], "sshd ended by signal 11");
    EXPECT_TRUE(outcome["core"]["Time"] == 1600000000 && outcome["core"]["Size"].asUInt() == kDumps[0].first.size());
    EXPECT_EQ(outcome["kernel"]["Parameters"][3], "0x0000000080000000");
    EXPECT_EQ(outcome["rubbish"]["Type"], "unknown");
    EXPECT_TRUE(outcome[""]["State"] == "finished" && outcome[""]["Analysed"] == 2 && outcome[""]["Unreadable"] == 1);

    for (int i = 0; i < 1000; ++i) {
        store("many" + std::to_string(i), "x", seconds(1400000000));
    }
    for (bool cancelled = false; !cancelled;) { // whether it comes in time is chance, what then follows is not
        asker.StartBsodAnalysis();
        cancelled = asker.CancelAnalysis() == 0;
        EXPECT_EQ(asker.Outcome()[""]["State"], cancelled ? "cancelled" : "finished");
    }
    fs::remove_all(folder);
    asker.GetBsodHistory(dumps, status);
    EXPECT_TRUE(status == 1 && dumps.size() == 3) << "it has gone";
}

} // namespace
} // namespace Vantor::Sentrix::CrashDump
