#include "services/crashdump/DumpHeader.h"

#include "services/crashdump/Bytes.h"

#include <fstream>

namespace Vantor::Sentrix::CrashDump {

namespace {

using namespace std::string_view_literals;

constexpr char kOutOfReach[] = "what is looked for lies behind the end of the file or its first 64 KiB";

// ---- ELF cores -----------------------------------------------------------------------------------------------------

constexpr std::uint64_t kElfCoreType = 4;     // ET_CORE
constexpr std::uint64_t kNoteSegment = 4;     // PT_NOTE
constexpr std::uint64_t kStatusNote = 1;      // NT_PRSTATUS
constexpr std::uint64_t kProcessInfoNote = 3; // NT_PRPSINFO

// Where 32 and 64 bits differ: offsets within the file header and a program header, and the width of an address.
struct ElfLayout {
    std::size_t width;
    std::uint64_t programHeaders, entrySize, entryCount;     // e_phoff, e_phentsize, e_phnum
    std::uint64_t segmentOffset, segmentSize, smallestEntry; // p_offset, p_filesz, and all of an entry
};
constexpr ElfLayout kElf32{4, 0x1C, 0x2A, 0x2C, 4, 16, 32};
constexpr ElfLayout kElf64{8, 0x20, 0x36, 0x38, 8, 32, 56};

// The notes of the process: the first note segment. Nothing when it is out of reach.
std::optional<Bytes> FindNotes(const Bytes& file, const ElfLayout& layout) {
    const auto table = file.Number(layout.programHeaders, layout.width);
    const auto entrySize = file.Half(layout.entrySize);
    const auto entryCount = file.Half(layout.entryCount);
    if (!table || !entrySize || !entryCount || *table >= kHeaderBytes || *entrySize < layout.smallestEntry) {
        return std::nullopt;
    }
    for (std::uint64_t i = 0; i < *entryCount; ++i) {
        const std::uint64_t entry = *table + i * *entrySize;
        const auto type = file.Word(entry);
        if (!type) {
            return std::nullopt;
        }
        const auto offset = file.Number(entry + layout.segmentOffset, layout.width);
        const auto size = file.Number(entry + layout.segmentSize, layout.width);
        if (*type == kNoteSegment && offset && size) {
            return Bytes(file.UpTo(*offset, *size), file.Order());
        }
    }
    return std::nullopt;
}

// elf_prstatus: three ints of siginfo, then pr_cursig. The first thread's is that of the one that was hit.
void TakeStatus(const Bytes& note, DumpHeader& header) {
    constexpr std::uint64_t kCurrentSignal = 12;
    if (const auto signal = note.Half(kCurrentSignal); signal && !header.signal) {
        header.signal = static_cast<int>(*signal);
    }
}

// elf_prpsinfo ends with pr_fname and pr_psargs; what is before them differs in length between the machines.
void TakeProcessInfo(const Bytes& note, std::uint64_t size, DumpHeader& header) {
    constexpr std::uint64_t kNameSize = 16;
    constexpr std::uint64_t kArgumentsSize = 80;
    if (size < kNameSize + kArgumentsSize) {
        return;
    }
    if (const auto name = note.Part(size - kArgumentsSize - kNameSize, kNameSize); name && header.process.empty()) {
        header.process = name->substr(0, name->find('\0'));
    }
}

// A note: the lengths of its name and its content, its type, then both, each filled up to four bytes.
void TakeNotes(const Bytes& notes, DumpHeader& header) {
    constexpr std::uint64_t kNoteHeader = 12;
    const auto padded = [](std::uint64_t length) { return (length + 3) / 4 * 4; };
    for (std::uint64_t at = 0; !header.signal || header.process.empty();) {
        const auto nameSize = notes.Word(at);
        const auto size = notes.Word(at + 4);
        const auto type = notes.Word(at + 8);
        if (!nameSize || !size || !type) {
            return;
        }
        const std::uint64_t content = at + kNoteHeader + padded(*nameSize);
        const Bytes note(notes.UpTo(content, *size), notes.Order());
        if (notes.Part(at + kNoteHeader, *nameSize) == "CORE\0"sv) {
            if (*type == kStatusNote) {
                TakeStatus(note, header);
            } else if (*type == kProcessInfoNote) {
                TakeProcessInfo(note, *size, header);
            }
        }
        at = content + padded(*size);
    }
}

DumpHeader ParseElf(std::string_view bytes) {
    constexpr std::uint64_t kClass = 4; // 1: 32 bits, 2: 64
    constexpr std::uint64_t kData = 5;  // 1: little-endian, 2: big-endian
    constexpr std::uint64_t kType = 16;
    DumpHeader header;
    const auto bits = Bytes(bytes).Number(kClass, 1).value_or(0);
    const auto order = Bytes(bytes).Number(kData, 1).value_or(0);
    const Bytes file(bytes, order == 2 ? ByteOrder::Big : ByteOrder::Little);
    if (bits < 1 || bits > 2 || order < 1 || order > 2 || file.Half(kType) != kElfCoreType) {
        header.error = "an ELF file, but no core";
        return header;
    }
    header.type = DumpType::ElfCore;
    if (const auto notes = FindNotes(file, bits == 2 ? kElf64 : kElf32)) {
        TakeNotes(*notes, header);
    }
    if (!header.signal && header.process.empty()) {
        header.error = kOutOfReach;
    }
    return header;
}

// ---- Dumps of the Windows kernel -----------------------------------------------------------------------------------

DumpHeader ParseKernelDump(std::string_view bytes) {
    struct Layout {
        std::uint64_t code, parameters;
        std::size_t width; // of a parameter
    };
    constexpr Layout k32{0x28, 0x2C, 4};
    constexpr Layout k64{0x38, 0x40, 8};
    const Layout& layout = bytes.starts_with("PAGEDU64") ? k64 : k32;

    const Bytes file(bytes);
    DumpHeader header;
    header.type = DumpType::KernelDump;
    const auto code = file.Word(layout.code);
    if (!code || !file.Part(layout.parameters, 4 * layout.width)) {
        header.error = kOutOfReach;
        return header;
    }
    KernelStop stop;
    stop.code = static_cast<std::uint32_t>(*code);
    for (std::size_t i = 0; i < stop.parameters.size(); ++i) {
        stop.parameters[i] = file.Number(layout.parameters + i * layout.width, layout.width).value_or(0);
    }
    header.stop = stop;
    return header;
}

// ---- User-mode minidumps -------------------------------------------------------------------------------------------

// A program may have its dump written without any exception: then there is no such stream.
void TakeException(const Bytes& file, std::uint64_t count, std::uint64_t directory, DumpHeader& header) {
    constexpr std::uint64_t kEntrySize = 12; // type, size, offset
    constexpr std::uint64_t kExceptionStream = 6;
    constexpr std::uint64_t kExceptionCode = 8; // behind the thread's id and a filler
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto type = file.Word(directory + i * kEntrySize);
        const auto offset = file.Word(directory + i * kEntrySize + 8);
        if (!type || !offset) {
            header.error = kOutOfReach;
            return;
        }
        if (*type == kExceptionStream) {
            if (const auto code = file.Word(*offset + kExceptionCode)) {
                header.exceptionCode = static_cast<std::uint32_t>(*code);
            } else {
                header.error = kOutOfReach;
            }
            return;
        }
    }
}

DumpHeader ParseMiniDump(std::string_view bytes) {
    const Bytes file(bytes);
    DumpHeader header;
    header.type = DumpType::MiniDump;
    const auto count = file.Word(8);
    const auto directory = file.Word(12);
    const auto time = file.Word(20);
    if (!count || !directory || !time) {
        header.error = kOutOfReach;
        return header;
    }
    header.time = static_cast<std::int64_t>(*time);
    TakeException(file, *count, *directory, header);
    return header;
}

// ---- Which it is ---------------------------------------------------------------------------------------------------

// The system's own collector may store its cores compressed; unpacking them is its program's business.
const char* CompressionOf(std::string_view bytes) {
    return bytes.starts_with("\x28\xB5\x2F\xFD")   ? "compressed by zstd; unpack it first"
           : bytes.starts_with("\x04\x22\x4D\x18") ? "compressed by lz4; unpack it first"
           : bytes.starts_with("\xFD\x37zXZ\0"sv)  ? "compressed by xz; unpack it first"
                                                   : nullptr;
}

DumpHeader Unreadable(const char* why) {
    DumpHeader header;
    header.error = why;
    return header;
}

} // namespace

const char* NameOf(DumpType type) {
    switch (type) {
    case DumpType::ElfCore:
        return "elf-core";
    case DumpType::KernelDump:
        return "kernel-dump";
    case DumpType::MiniDump:
        return "minidump";
    case DumpType::Unknown:
        break;
    }
    return "unknown";
}

DumpHeader ParseDumpHeader(std::string_view bytes) {
    constexpr std::uint64_t kMiniDumpVersion = 0xA793; // the lower half; the upper is its writer's own
    bytes = bytes.substr(0, kHeaderBytes);
    if (bytes.starts_with("\x7F"
                          "ELF")) {
        return ParseElf(bytes);
    }
    if (bytes.starts_with("PAGEDU64") || bytes.starts_with("PAGEDUMP")) {
        return ParseKernelDump(bytes);
    }
    if (bytes.starts_with("MDMP") && Bytes(bytes).Half(4) == kMiniDumpVersion) {
        return ParseMiniDump(bytes);
    }
    const char* compression = CompressionOf(bytes);
    return Unreadable(compression != nullptr ? compression : "of no kind that is known here");
}

DumpHeader ReadDumpHeader(const std::filesystem::path& file) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(file, error))) {
        return Unreadable(error ? "cannot be reached" : "no file"); // opening a device may wait for ever
    }
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        return Unreadable("cannot be opened");
    }
    std::string bytes(kHeaderBytes, '\0');
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (stream.bad()) {
        return Unreadable("cannot be read");
    }
    return ParseDumpHeader(std::string_view(bytes).substr(0, static_cast<std::size_t>(stream.gcount())));
}

} // namespace Vantor::Sentrix::CrashDump
