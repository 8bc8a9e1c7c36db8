#pragma once

// The unwind rows of a module as elfutils reads them.

#include <elfutils/libdw.h>

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/thread_context.h"

namespace ThreadUtilities::cfi {

/// Where the caller's value of a register is.
struct Location {
    enum class Kind { Same, Undefined, InMemory, IsValue, Unknown };
    Kind kind = Kind::Same;
    std::uint64_t value = 0;

    bool operator==(const Location&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Location& location);

/// The registers that a caller may rely on, and what else a step must find.
inline constexpr std::array comparedRegisters = {
    platform::Rbx, platform::Rbp, platform::Rsp, platform::R12,
    platform::R13, platform::R14, platform::R15, platform::Rip,
};

/// One row, applied to some registers.
struct AppliedRow {
    std::uint64_t frameAddress = 0;
    std::array<Location, comparedRegisters.size()> locations;
    bool isSignalFrame = false;

    bool operator==(const AppliedRow&) const = default;
};

std::ostream& operator<<(std::ostream& out, const AppliedRow& row);

/// The word at an address that an expression asks for.
using ReadWord = std::function<std::optional<std::uint64_t>(std::uint64_t address)>;

class ElfutilsRows {
 public:
    explicit ElfutilsRows(const std::string& path);
    /// An ELF image in memory.
    ElfutilsRows(const void* image, std::size_t size);
    ~ElfutilsRows();
    ElfutilsRows(const ElfutilsRows&) = delete;
    ElfutilsRows& operator=(const ElfutilsRows&) = delete;

    bool isOpen() const { return cfi != nullptr; }

    /// The code of every FDE, as addresses in the file.
    struct CodeRange {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
    };
    std::vector<CodeRange> codeRanges() const;

    struct Row {
        AppliedRow applied;
        std::uint64_t end = 0;  ///< where the next row begins
    };
    std::optional<Row> rowAt(std::uint64_t address, const platform::Registers& registers,
                             const ReadWord& readWord) const;

 private:
    void open();

    int file = -1;
    Elf* elf = nullptr;
    Dwarf_CFI* cfi = nullptr;
};

}  // namespace ThreadUtilities::cfi
