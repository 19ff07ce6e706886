// Records about files, and lists of them, as bytes on a stream.
//
// Threads: an item belongs to one thread at a time, together with the stream; different items are independent.
// Fails: nothing is thrown and nothing is returned: what a stream lacks, or there is no memory for, counts as zeros and
// is logged, as in StreamReader.
#pragma once

#include "veyrasvc/platform/Export.h"
#include "veyrasvc/platform/Win32.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Vantor::Sentrix {

class Stream;

// A record that can be written to a stream and read back.
// Owns: not the streams and items that it is given; they are borrowed for the call and must not be null.
class VEYRASVC_API BaseItem {
public:
    virtual ~BaseItem();

    // Takes over what `other` holds, by way of its bytes. The two may be of different classes that agree on those, or
    // the same item.
    virtual void Assign(BaseItem* other);

    // Writes the record at the stream's position.
    virtual void Serialize(Stream* stream) = 0;

    // Reads the record from the stream's position and leaves the position behind it.
    virtual void Deserialize(Stream* stream) = 0;

protected:
    BaseItem() = default;
    BaseItem(const BaseItem&) = default;
    BaseItem& operator=(const BaseItem&) = default;
};

// One file. On a stream its fields follow each other in the order below, 60 bytes and two more for each UTF-16 unit of
// the two strings; nothing announces or ends it. What the flags, the attributes and the reserved words mean is an
// agreement between those who write and those who read.
class VEYRASVC_API SimpleFileItem : public BaseItem {
public:
    void Serialize(Stream* stream) override;
    void Deserialize(Stream* stream) override;

    bool m_flag = false; // an int, 0 or 1
    std::wstring m_name;
    std::wstring m_path;
    std::uint64_t m_size = 0;
    std::int32_t m_attributes = 0;
    std::uint32_t m_reserved0 = 0;
    std::uint32_t m_reserved1 = 0;
    FILETIME m_creationTime{}; // low half, high half
    FILETIME m_lastAccessTime{};
    FILETIME m_lastWriteTime{};
    bool m_flag2 = false; // an int, 0 or 1
};

// Appends to `items` the SimpleFileItems of a list: a 4-byte big-endian count, then each. A stream that ends before the
// announced number ends the list as well: an item that breaks off is the last, with zeros for what is missing, and one
// of which nothing arrived is not appended. So a count that lies costs no more than the items that came.
// Owns: the caller gets the new items; each is to be deleted.
// Fails: a stream that ends early logs "read buffer error!" for each missing field of the item that breaks off, and
// once for what is missing after it. Without memory for another item the list ends with the same line.
VEYRASVC_API void ReadItems(std::vector<BaseItem*>& items, Stream* stream);

} // namespace Vantor::Sentrix
