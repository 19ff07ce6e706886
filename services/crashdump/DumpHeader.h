// What the first bytes of a crash dump tell: its kind, and who or what failed.
//
// Three kinds are known. Their layouts are taken from what their makers have published:
//   ELF cores       the System V ABI on object files (ident, file header, program headers, notes), and the structures
//                   elf_prstatus and elf_prpsinfo of the system header <sys/procfs.h> for what is in the notes
//   kernel dumps    the structures DUMP_HEADER32 and DUMP_HEADER64 of the Windows debugger's documentation
//   minidumps       the structures MINIDUMP_* of the system header <minidumpapiset.h>
// A core may be of 32 or 64 bits and of either byte order, whatever the machine is that reads it.
//
// Nothing in a dump is trusted: every read is checked against the bytes that are there, every loop ends with them, and
// no number out of a file decides how much memory is used.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace Vantor::Sentrix::CrashDump {

// All that is looked at of a file. What lies behind it is out of reach.
inline constexpr std::size_t kHeaderBytes = 65536;

enum class DumpType { Unknown, ElfCore, KernelDump, MiniDump };

// The name of the type in the service's messages.
const char* NameOf(DumpType type);

struct KernelStop {
    std::uint32_t code = 0;
    std::array<std::uint64_t, 4> parameters{};
};

struct DumpHeader {
    DumpType type = DumpType::Unknown;
    std::string error;                          // why it is not understood, or not wholly; empty: it is
    std::string process;                        // of an ELF core; bytes as they stand in the file
    std::optional<int> signal;                  // of an ELF core
    std::optional<KernelStop> stop;             // of a kernel dump
    std::optional<std::uint32_t> exceptionCode; // of a minidump that was written because of one
    std::optional<std::int64_t> time;           // of a minidump: when it was written, seconds since 1970
};

// `bytes`: the beginning of a file. Threads: any.
// Fails: by `error`; what was understood before the fault is told.
DumpHeader ParseDumpHeader(std::string_view bytes);

// The same of a file, of which kHeaderBytes are read. A folder, a device or a symbolic link is not opened.
DumpHeader ReadDumpHeader(const std::filesystem::path& file);

} // namespace Vantor::Sentrix::CrashDump
