#include "veyrasvc/stream/FileItems.h"

#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/util/LogStatement.h"

#include <cstring>
#include <memory>
#include <new>

namespace Vantor::Sentrix {

namespace {

// The stream that one item is read from: knows whether the item is there at all. One that is not reads as zeros, whose
// strings are empty, so that one line in the log tells of the end and not one for each field.
class ItemSource final : public Stream {
public:
    explicit ItemSource(Stream& stream) : m_stream(stream) {}

    bool IsMissing() const { return m_state == State::kMissing; }

    unsigned int Read(void* buffer, unsigned int count) override {
        if (m_state == State::kMissing) {
            std::memset(buffer, 0, count);
            return count;
        }
        const unsigned int arrived = m_stream.Read(buffer, count);
        if (m_state == State::kUnread) {
            m_state = arrived == 0 ? State::kMissing : State::kThere;
        }
        return arrived;
    }
    unsigned int Write(const void* /*buffer*/, unsigned int /*count*/) override { return 0; }
    std::int64_t Seek(std::int64_t offset, int origin) override { return m_stream.Seek(offset, origin); }

private:
    enum class State { kUnread, kMissing, kThere };

    Stream& m_stream;
    State m_state = State::kUnread;
};

// False when the stream holds no byte of another item.
bool ReadItem(std::vector<BaseItem*>& items, Stream& stream) {
    ItemSource source(stream);
    auto item = std::make_unique<SimpleFileItem>();
    item->Deserialize(&source);
    if (source.IsMissing()) {
        return false;
    }
    items.push_back(item.get());
    static_cast<void>(item.release()); // only once the vector has it
    return true;
}

} // namespace

BaseItem::~BaseItem() = default;

void BaseItem::Assign(BaseItem* other) {
    MemoryrStream stream;
    other->Serialize(&stream);
    stream.SetPosition(0);
    Deserialize(&stream);
}

void SimpleFileItem::Serialize(Stream* stream) {
    StreamWriter writer(stream);
    writer.Write(m_flag ? 1 : 0);
    writer.Write(m_name);
    writer.Write(m_path);
    writer.Write(m_size);
    writer.Write(m_attributes);
    writer.Write(m_reserved0);
    writer.Write(m_reserved1);
    writer.Write(m_creationTime);
    writer.Write(m_lastAccessTime);
    writer.Write(m_lastWriteTime);
    writer.Write(m_flag2 ? 1 : 0);
}

void SimpleFileItem::Deserialize(Stream* stream) {
    StreamReader reader(stream);
    m_flag = reader.ReadInt() != 0;
    m_name = reader.ReadWString();
    m_path = reader.ReadWString();
    m_size = reader.ReadUInt64();
    m_attributes = reader.ReadInt();
    m_reserved0 = reader.ReadUInt();
    m_reserved1 = reader.ReadUInt();
    m_creationTime = reader.ReadFileTime();
    m_lastAccessTime = reader.ReadFileTime();
    m_lastWriteTime = reader.ReadFileTime();
    m_flag2 = reader.ReadInt() != 0;
}

void ReadItems(std::vector<BaseItem*>& items, Stream* stream) {
    try {
        for (unsigned int left = StreamReader(stream).ReadUInt(); left > 0 && ReadItem(items, *stream); --left) {
        }
    } catch (const std::bad_alloc&) {
        LOG_ERROR("read buffer error!");
    }
}

} // namespace Vantor::Sentrix
