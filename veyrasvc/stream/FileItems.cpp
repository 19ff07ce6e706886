#include "veyrasvc/stream/FileItems.h"

#include "veyrasvc/stream/SimpleStream.h"

#include <cstring>
#include <memory>

namespace Vantor::Sentrix {

namespace {

// Knows whether all that was asked of a stream came. From its end on everything reads as zeros, which is what a reader
// makes of missing bytes anyhow; so one line in the log tells of the end, not one for each field behind it.
class EndWatch final : public Stream {
public:
    explicit EndWatch(Stream& stream) : m_stream(stream) {}

    bool HasEnded() const { return m_hasEnded; }

    unsigned int Read(void* buffer, unsigned int count) override {
        if (m_hasEnded) {
            std::memset(buffer, 0, count);
            return count;
        }
        const unsigned int arrived = m_stream.Read(buffer, count);
        m_hasEnded = arrived != count;
        return arrived;
    }
    unsigned int Write(const void* /*buffer*/, unsigned int /*count*/) override { return 0; }
    std::int64_t Seek(std::int64_t offset, int origin) override { return m_stream.Seek(offset, origin); }

private:
    Stream& m_stream;
    bool m_hasEnded = false;
};

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
    EndWatch watched(*stream);
    for (unsigned int left = StreamReader(&watched).ReadUInt(); left > 0; --left) {
        auto item = std::make_unique<SimpleFileItem>();
        item->Deserialize(&watched);
        if (watched.HasEnded()) {
            return;
        }
        items.push_back(item.get());
        static_cast<void>(item.release()); // only once the vector has it
    }
}

} // namespace Vantor::Sentrix
