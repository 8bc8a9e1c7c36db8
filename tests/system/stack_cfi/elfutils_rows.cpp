#include "stack_cfi/elfutils_rows.h"

#include <dwarf.h>
#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <stdexcept>

namespace ThreadUtilities::cfi {
namespace {

struct FreeFrame {
    void operator()(Dwarf_Frame* frame) const { std::free(frame); }
};

/// Evaluates what elfutils gives: an expression, or the description of a location.
class Evaluator {
 public:
    Evaluator(const platform::Registers& registerValues, std::optional<std::uint64_t> frame,
              const ReadWord& wordReader)
        : registers(registerValues), frameAddress(frame), readWord(wordReader) {}

    /// In memory at what the operations give, unless they end in DW_OP_stack_value.
    Location evaluate(const Dwarf_Op* operations, std::size_t count) {
        Location::Kind kind = Location::Kind::InMemory;
        for (std::size_t index = 0; index < count; ++index) {
            const Dwarf_Op& operation = operations[index];
            if (operation.atom == DW_OP_stack_value) {
                kind = Location::Kind::IsValue;
            } else if (operation.atom == DW_OP_regx) {
                return {Location::Kind::IsValue, registers.at(operation.number)};
            } else if (!perform(operation)) {
                return {Location::Kind::Unknown};
            }
        }
        return {kind, stack.back()};
    }

 private:
    std::uint64_t pop() {
        const std::uint64_t value = stack.at(stack.size() - 1);
        stack.pop_back();
        return value;
    }

    bool perform(const Dwarf_Op& operation) {
        if (operation.atom >= DW_OP_breg0 && operation.atom <= DW_OP_breg31) {
            stack.push_back(registers.at(operation.atom - DW_OP_breg0) + operation.number);
            return true;
        }
        if (operation.atom >= DW_OP_lit0 && operation.atom <= DW_OP_lit31) {
            stack.push_back(operation.atom - DW_OP_lit0);
            return true;
        }
        switch (operation.atom) {
            case DW_OP_bregx:
                stack.push_back(registers.at(operation.number) + operation.number2);
                return true;
            case DW_OP_call_frame_cfa:
                stack.push_back(frameAddress.value());
                return true;
            case DW_OP_const1u:
            case DW_OP_const1s:
            case DW_OP_const2s:
            case DW_OP_consts:
                stack.push_back(operation.number);
                return true;
            case DW_OP_plus_uconst:
                stack.back() += operation.number;
                return true;
            case DW_OP_deref: {
                const auto word = readWord(pop());
                stack.push_back(word.value_or(0));
                return word.has_value();
            }
            default:
                return performBinary(operation.atom);
        }
    }

    bool performBinary(std::uint8_t operation) {
        const std::uint64_t right = pop();
        const std::uint64_t left = pop();
        const auto difference = static_cast<std::int64_t>(left - right);
        switch (operation) {
            // clang-format off
            case DW_OP_plus:  stack.push_back(left + right); return true;
            case DW_OP_minus: stack.push_back(left - right); return true;
            case DW_OP_mul:   stack.push_back(left * right); return true;
            case DW_OP_and:   stack.push_back(left & right); return true;
            case DW_OP_shl:   stack.push_back(left << right); return true;
            case DW_OP_ge:    stack.push_back(difference >= 0); return true;
            // clang-format on
            default:
                throw std::logic_error("expression operation " + std::to_string(operation));
        }
    }

    const platform::Registers& registers;
    const std::optional<std::uint64_t> frameAddress;
    const ReadWord& readWord;
    std::vector<std::uint64_t> stack;
};

Location locationOf(Dwarf_Frame* frame, platform::Register number,
                    const platform::Registers& registers, std::uint64_t frameAddress,
                    const ReadWord& readWord) {
    Dwarf_Op memory[3];
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    if (dwarf_frame_register(frame, number, memory, &operations, &count) != 0) {
        return {Location::Kind::Unknown};
    }
    if (count == 0) {
        // Elfutils' own table of registers that calls preserve has rax in the place of rbx, so an
        // rbx without a rule reads undefined there. No code of ours to compare says so itself.
        return {operations == nullptr || number == platform::Rbx ? Location::Kind::Same
                                                                 : Location::Kind::Undefined};
    }
    return Evaluator(registers, frameAddress, readWord).evaluate(operations, count);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Location& location) {
    static constexpr const char* names[] = {"same", "undefined", "in memory at", "is", "unknown"};
    return out << names[static_cast<int>(location.kind)] << " 0x" << std::hex << location.value;
}

std::ostream& operator<<(std::ostream& out, const AppliedRow& row) {
    out << "frame address 0x" << std::hex << row.frameAddress;
    for (std::size_t index = 0; index < row.locations.size(); ++index) {
        out << std::dec << "\n  r" << +comparedRegisters[index] << " " << row.locations[index];
    }
    return out << (row.isSignalFrame ? "\n  signal frame" : "");
}

ElfutilsRows::ElfutilsRows(const std::string& path) : file(::open(path.c_str(), O_RDONLY)) {
    elf_version(EV_CURRENT);
    elf = elf_begin(file, ELF_C_READ_MMAP, nullptr);
    open();
}

ElfutilsRows::ElfutilsRows(const void* image, std::size_t size) {
    elf_version(EV_CURRENT);
    elf = elf_memory(static_cast<char*>(const_cast<void*>(image)), size);
    open();
}

void ElfutilsRows::open() {
    cfi = elf == nullptr ? nullptr : dwarf_getcfi_elf(elf);
}

ElfutilsRows::~ElfutilsRows() {
    dwarf_cfi_end(cfi);
    elf_end(elf);
    if (file >= 0) {
        close(file);
    }
}

std::vector<ElfutilsRows::CodeRange> ElfutilsRows::codeRanges() const {
    std::size_t names = 0;
    elf_getshdrstrndx(elf, &names);
    std::vector<CodeRange> ranges;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
        GElf_Shdr header;
        gelf_getshdr(section, &header);
        if (std::strcmp(elf_strptr(elf, names, header.sh_name), ".eh_frame") != 0) {
            continue;
        }
        Elf_Data* const data = elf_rawdata(section, nullptr);
        Dwarf_CFI_Entry entry;
        Dwarf_Off next = 0;
        for (Dwarf_Off offset = 0;
             dwarf_next_cfi(reinterpret_cast<unsigned char*>(elf_getident(elf, nullptr)), data,
                            true, offset, &next, &entry) == 0;
             offset = next) {
            if (dwarf_cfi_cie_p(&entry)) {
                continue;
            }
            // Every linker of this system writes both fields as 32 bits, the first relative.
            std::int32_t start = 0;
            std::uint32_t size = 0;
            std::memcpy(&start, entry.fde.start, sizeof(start));
            std::memcpy(&size, entry.fde.start + sizeof(start), sizeof(size));
            const auto place = static_cast<std::uint64_t>(
                entry.fde.start - static_cast<const std::uint8_t*>(data->d_buf));
            const std::uint64_t begin = header.sh_addr + place + std::int64_t{start};
            ranges.push_back({begin, begin + size});
        }
    }
    return ranges;
}

std::optional<ElfutilsRows::Row> ElfutilsRows::rowAt(std::uint64_t address,
                                                     const platform::Registers& registers,
                                                     const ReadWord& readWord) const {
    Dwarf_Frame* found = nullptr;
    if (dwarf_cfi_addrframe(cfi, address, &found) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<Dwarf_Frame, FreeFrame> frame(found);
    Row row;
    std::uint64_t start = 0;
    dwarf_frame_info(found, &start, &row.end, &row.applied.isSignalFrame);
    Dwarf_Op* operations = nullptr;
    std::size_t count = 0;
    if (dwarf_frame_cfa(found, &operations, &count) != 0 || count == 0) {
        return std::nullopt;
    }
    const Location location =
        Evaluator(registers, std::nullopt, readWord).evaluate(operations, count);
    row.applied.frameAddress = location.value;
    for (std::size_t index = 0; index < comparedRegisters.size(); ++index) {
        row.applied.locations[index] = locationOf(found, comparedRegisters[index], registers,
                                                  row.applied.frameAddress, readWord);
    }
    return row;
}

}  // namespace ThreadUtilities::cfi
