#include "mcs51.h"

#include <cstddef>
#include <utility>

namespace sim {

/*
 * The low half of an opcode is its column in the table of instructions at the end of this file, the
 * high half its row.  From column 4 on, the column stands for the operand (4: accumulator or
 * immediate, 5: direct, 6 and 7: indirect, the others: a register) and the row for the operation.
 * Columns 0 to 3 have the instructions that do not follow that scheme.
 */
namespace {

constexpr uint8_t kCarryFlag = 0x80;
constexpr uint8_t kHalfCarryFlag = 0x40;
constexpr uint8_t kOverflowFlag = 0x04;
constexpr uint8_t kBankMask = 0x18;

// Bits below 0x80 are in the memory from 0x20 on, the others in every eighth special register.
uint8_t byteOfBit(uint8_t address) {
    return static_cast<uint8_t>(address < 0x80 ? 0x20 + address / 8 : address & 0xF8);
}

uint16_t wordOf(uint8_t high, uint8_t low) {
    return static_cast<uint16_t>(high << 8 | low);
}

// A copy of a column of the table, with another instruction in one row.
template <typename Column>
constexpr Column with(Column column, size_t row, typename Column::value_type instruction) {
    column[row] = instruction;
    return column;
}

} // namespace

void Mcs51::reset() {
    programCounter_ = 0;
    internal_.fill(0);
    internal_[kStackPointer] = 7;
}

uint16_t Mcs51::fetchWord() {
    const uint8_t high = fetch();
    return wordOf(high, fetch());
}

void Mcs51::jumpIf(bool condition) {
    const auto distance = static_cast<int8_t>(fetch());
    if (condition)
        programCounter_ = static_cast<uint16_t>(programCounter_ + distance);
}

uint8_t &Mcs51::indirect(uint8_t address) {
    return address < 0x80 ? internal_[address] : upper_[address - 0x80U];
}

uint8_t &Mcs51::registerAt(unsigned number) {
    return internal_[(internal_[kProgramStatus] & kBankMask) + number];
}

// The operand for which the columns from 5 on stand.
uint8_t &Mcs51::operand(uint8_t opcode) {
    const unsigned column = opcode & 0x0FU;
    if (column >= 8)
        return registerAt(column - 8);
    return column == 5 ? direct(fetch()) : indirect(registerAt(column - 6));
}

uint16_t Mcs51::indexed(uint16_t base) {
    return static_cast<uint16_t>(base + a());
}

// The EZ-USB has a register of its own for the page, since it has no port 2.
uint16_t Mcs51::pagePointer(unsigned number) {
    return wordOf(internal_[kPage], registerAt(number));
}

uint16_t Mcs51::dataPointer() const {
    return wordOf(internal_[kDataPointerHigh], internal_[kDataPointerLow]);
}

void Mcs51::setDataPointer(uint16_t value) {
    internal_[kDataPointerHigh] = static_cast<uint8_t>(value >> 8);
    internal_[kDataPointerLow] = static_cast<uint8_t>(value);
}

bool Mcs51::bit(uint8_t address) {
    return (internal_[byteOfBit(address)] >> (address & 7) & 1) != 0;
}

void Mcs51::setBit(uint8_t address, bool value) {
    const auto mask = static_cast<uint8_t>(1U << (address & 7));
    uint8_t &byte = internal_[byteOfBit(address)];
    byte = static_cast<uint8_t>(value ? byte | mask : byte & ~mask);
}

bool Mcs51::carry() const {
    return (internal_[kProgramStatus] & kCarryFlag) != 0;
}

void Mcs51::setCarry(bool value) {
    uint8_t &status = internal_[kProgramStatus];
    status = static_cast<uint8_t>(value ? status | kCarryFlag : status & ~kCarryFlag);
}

void Mcs51::setFlags(bool carryOut, bool halfCarry, bool overflow) {
    constexpr int kArithmetic = kCarryFlag | kHalfCarryFlag | kOverflowFlag;
    uint8_t &status = internal_[kProgramStatus];
    status =
        static_cast<uint8_t>((status & ~kArithmetic) | (carryOut ? kCarryFlag : 0) |
                             (halfCarry ? kHalfCarryFlag : 0) | (overflow ? kOverflowFlag : 0));
}

void Mcs51::push(uint8_t value) {
    indirect(++internal_[kStackPointer]) = value;
}

uint8_t Mcs51::pop() {
    return indirect(internal_[kStackPointer]--);
}

void Mcs51::call(uint16_t target) {
    push(static_cast<uint8_t>(programCounter_));
    push(static_cast<uint8_t>(programCounter_ >> 8));
    programCounter_ = target;
}

void Mcs51::returnFromCall() {
    const uint8_t high = pop();
    programCounter_ = wordOf(high, pop());
}

void Mcs51::add(uint8_t value, bool carryIn) {
    const int sum = a() + value + (carryIn ? 1 : 0);
    const int half = (a() & 0x0F) + (value & 0x0F) + (carryIn ? 1 : 0);
    const bool overflow = (~(a() ^ value) & (a() ^ sum) & 0x80) != 0;
    setFlags(sum > 0xFF, half > 0x0F, overflow);
    a() = static_cast<uint8_t>(sum);
}

void Mcs51::subtract(uint8_t value) {
    const int borrow = carry() ? 1 : 0;
    const int difference = a() - value - borrow;
    const int half = (a() & 0x0F) - (value & 0x0F) - borrow;
    const bool overflow = ((a() ^ value) & (a() ^ difference) & 0x80) != 0;
    setFlags(difference < 0, half < 0, overflow);
    a() = static_cast<uint8_t>(difference);
}

void Mcs51::multiply() {
    const unsigned product = static_cast<unsigned>(a()) * internal_[kB];
    a() = static_cast<uint8_t>(product);
    internal_[kB] = static_cast<uint8_t>(product >> 8);
    setFlags(false, (internal_[kProgramStatus] & kHalfCarryFlag) != 0, product > 0xFF);
}

void Mcs51::divide() {
    const uint8_t divisor = internal_[kB];
    setFlags(false, (internal_[kProgramStatus] & kHalfCarryFlag) != 0, divisor == 0);
    if (divisor == 0)
        return;
    internal_[kB] = a() % divisor;
    a() = a() / divisor;
}

void Mcs51::decimalAdjust() {
    int value = a();
    if ((value & 0x0F) > 9 || (internal_[kProgramStatus] & kHalfCarryFlag) != 0)
        value += 0x06;
    if (value > 0x9F || carry())
        value += 0x60;
    if (value > 0xFF)
        setCarry(true);
    a() = static_cast<uint8_t>(value);
}

void Mcs51::rotate(uint8_t opcode) {
    const bool left = (opcode & 0x20) != 0;
    const bool throughCarry = (opcode & 0x10) != 0;
    const bool out = (a() & (left ? 0x80 : 0x01)) != 0;
    const bool in = throughCarry ? carry() : out;
    const int shifted = left ? a() << 1 : a() >> 1;
    a() = static_cast<uint8_t>(shifted | (in ? (left ? 0x01 : 0x80) : 0));
    if (throughCarry)
        setCarry(out);
}

void Mcs51::compareAndJump(uint8_t first, uint8_t second) {
    setCarry(first < second);
    jumpIf(first != second);
}

void Mcs51::exchangeLowHalves(uint8_t &other) {
    const auto low = static_cast<uint8_t>(other & 0x0F);
    other = static_cast<uint8_t>((other & 0xF0) | (a() & 0x0F));
    a() = static_cast<uint8_t>((a() & 0xF0) | low);
}

bool Mcs51::testAndClearBit(uint8_t address) {
    const bool was = bit(address);
    if (was)
        setBit(address, false);
    return was;
}

// AJMP and ACALL: the target is in the same 2 KiB.
void Mcs51::pageJump(uint8_t opcode) {
    const uint8_t low = fetch();
    const auto target =
        static_cast<uint16_t>((programCounter_ & 0xF800) | (opcode & 0xE0) << 3 | low);
    if ((opcode & 0x10) != 0)
        call(target);
    else
        programCounter_ = target;
}

// A function for each instruction.  One that fetches two operands keeps the first in a variable, so
// that they are fetched in this order.
struct Mcs51::Instructions {
    using Instruction = void (*)(Mcs51 &c, uint8_t opcode);
    using Column = std::array<Instruction, 16>;

    // Column 0.
    static constexpr Column kBranchesAndMoves{
        [](Mcs51 &, uint8_t) {},
        [](Mcs51 &c, uint8_t) { c.jumpIf(c.testAndClearBit(c.fetch())); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(c.bit(c.fetch())); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(!c.bit(c.fetch())); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(c.carry()); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(!c.carry()); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(c.a() == 0); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(c.a() != 0); },
        [](Mcs51 &c, uint8_t) { c.jumpIf(true); },
        [](Mcs51 &c, uint8_t) { c.setDataPointer(c.fetchWord()); },
        [](Mcs51 &c, uint8_t) {
            const bool value = !c.bit(c.fetch());
            c.setCarry(c.carry() || value);
        },
        [](Mcs51 &c, uint8_t) {
            const bool value = !c.bit(c.fetch());
            c.setCarry(c.carry() && value);
        },
        [](Mcs51 &c, uint8_t) { c.push(c.direct(c.fetch())); },
        [](Mcs51 &c, uint8_t) {
            uint8_t &target = c.direct(c.fetch());
            target = c.pop();
        },
        [](Mcs51 &c, uint8_t) { c.a() = c.bus_.read(c.dataPointer()); },
        [](Mcs51 &c, uint8_t) { c.bus_.write(c.dataPointer(), c.a()); },
    };

    // Column 1.
    static constexpr Instruction kPageJump = [](Mcs51 &c, uint8_t opcode) { c.pageJump(opcode); };
    static constexpr Column kPageJumps{
        kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump,
        kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump, kPageJump};

    // Column 2.
    static constexpr Column kJumpsAndBits{
        [](Mcs51 &c, uint8_t) { c.programCounter_ = c.fetchWord(); },
        [](Mcs51 &c, uint8_t) { c.call(c.fetchWord()); },
        [](Mcs51 &c, uint8_t) { c.returnFromCall(); },
        [](Mcs51 &c, uint8_t) { c.returnFromCall(); },
        [](Mcs51 &c, uint8_t) { c.direct(c.fetch()) |= c.a(); },
        [](Mcs51 &c, uint8_t) { c.direct(c.fetch()) &= c.a(); },
        [](Mcs51 &c, uint8_t) { c.direct(c.fetch()) ^= c.a(); },
        [](Mcs51 &c, uint8_t) {
            const bool value = c.bit(c.fetch());
            c.setCarry(c.carry() || value);
        },
        [](Mcs51 &c, uint8_t) {
            const bool value = c.bit(c.fetch());
            c.setCarry(c.carry() && value);
        },
        [](Mcs51 &c, uint8_t) { c.setBit(c.fetch(), c.carry()); },
        [](Mcs51 &c, uint8_t) { c.setCarry(c.bit(c.fetch())); },
        [](Mcs51 &c, uint8_t) {
            const uint8_t address = c.fetch();
            c.setBit(address, !c.bit(address));
        },
        [](Mcs51 &c, uint8_t) { c.setBit(c.fetch(), false); },
        [](Mcs51 &c, uint8_t) { c.setBit(c.fetch(), true); },
        [](Mcs51 &c, uint8_t) { c.a() = c.bus_.read(c.pagePointer(0)); },
        [](Mcs51 &c, uint8_t) { c.bus_.write(c.pagePointer(0), c.a()); },
    };

    // Column 3.
    static constexpr Column kLogicAndPointers{
        [](Mcs51 &c, uint8_t opcode) { c.rotate(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.rotate(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.rotate(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.rotate(opcode); },
        [](Mcs51 &c, uint8_t) {
            uint8_t &target = c.direct(c.fetch());
            target |= c.fetch();
        },
        [](Mcs51 &c, uint8_t) {
            uint8_t &target = c.direct(c.fetch());
            target &= c.fetch();
        },
        [](Mcs51 &c, uint8_t) {
            uint8_t &target = c.direct(c.fetch());
            target ^= c.fetch();
        },
        [](Mcs51 &c, uint8_t) { c.programCounter_ = c.indexed(c.dataPointer()); },
        [](Mcs51 &c, uint8_t) { c.a() = c.bus_.read(c.indexed(c.programCounter_)); },
        [](Mcs51 &c, uint8_t) { c.a() = c.bus_.read(c.indexed(c.dataPointer())); },
        [](Mcs51 &c, uint8_t) { c.setDataPointer(static_cast<uint16_t>(c.dataPointer() + 1)); },
        [](Mcs51 &c, uint8_t) { c.setCarry(!c.carry()); },
        [](Mcs51 &c, uint8_t) { c.setCarry(false); },
        [](Mcs51 &c, uint8_t) { c.setCarry(true); },
        [](Mcs51 &c, uint8_t) { c.a() = c.bus_.read(c.pagePointer(1)); },
        [](Mcs51 &c, uint8_t) { c.bus_.write(c.pagePointer(1), c.a()); },
    };

    // Column 4.
    static constexpr Column kAccumulator{
        [](Mcs51 &c, uint8_t) { ++c.a(); },
        [](Mcs51 &c, uint8_t) { --c.a(); },
        [](Mcs51 &c, uint8_t) { c.add(c.fetch(), false); },
        [](Mcs51 &c, uint8_t) { c.add(c.fetch(), c.carry()); },
        [](Mcs51 &c, uint8_t) { c.a() |= c.fetch(); },
        [](Mcs51 &c, uint8_t) { c.a() &= c.fetch(); },
        [](Mcs51 &c, uint8_t) { c.a() ^= c.fetch(); },
        [](Mcs51 &c, uint8_t) { c.a() = c.fetch(); },
        [](Mcs51 &c, uint8_t) { c.divide(); },
        [](Mcs51 &c, uint8_t) { c.subtract(c.fetch()); },
        [](Mcs51 &c, uint8_t) { c.multiply(); },
        [](Mcs51 &c, uint8_t) { c.compareAndJump(c.a(), c.fetch()); },
        [](Mcs51 &c, uint8_t) { c.a() = static_cast<uint8_t>(c.a() << 4 | c.a() >> 4); },
        [](Mcs51 &c, uint8_t) { c.decimalAdjust(); },
        [](Mcs51 &c, uint8_t) { c.a() = 0; },
        [](Mcs51 &c, uint8_t) { c.a() = static_cast<uint8_t>(~c.a()); },
    };

    // Columns 8 to 15; those of 5 to 7 differ in a few rows.
    static constexpr Column kOperations{
        [](Mcs51 &c, uint8_t opcode) { ++c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) { --c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.add(c.operand(opcode), false); },
        [](Mcs51 &c, uint8_t opcode) { c.add(c.operand(opcode), c.carry()); },
        [](Mcs51 &c, uint8_t opcode) { c.a() |= c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.a() &= c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.a() ^= c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) {
            uint8_t &target = c.operand(opcode);
            target = c.fetch();
        },
        [](Mcs51 &c, uint8_t opcode) {
            const uint8_t value = c.operand(opcode);
            c.direct(c.fetch()) = value;
        },
        [](Mcs51 &c, uint8_t opcode) { c.subtract(c.operand(opcode)); },
        [](Mcs51 &c, uint8_t opcode) {
            uint8_t &target = c.operand(opcode);
            target = c.direct(c.fetch());
        },
        [](Mcs51 &c, uint8_t opcode) {
            const uint8_t value = c.operand(opcode);
            c.compareAndJump(value, c.fetch());
        },
        [](Mcs51 &c, uint8_t opcode) { std::swap(c.a(), c.operand(opcode)); },
        [](Mcs51 &c, uint8_t opcode) { c.jumpIf(--c.operand(opcode) != 0); },
        [](Mcs51 &c, uint8_t opcode) { c.a() = c.operand(opcode); },
        [](Mcs51 &c, uint8_t opcode) { c.operand(opcode) = c.a(); },
    };

    static constexpr Instruction kNone = [](Mcs51 &, uint8_t) {};
    static constexpr Instruction kCompareWithDirect = [](Mcs51 &c, uint8_t) {
        c.compareAndJump(c.a(), c.direct(c.fetch()));
    };
    static constexpr Instruction kExchangeLowHalves = [](Mcs51 &c, uint8_t opcode) {
        c.exchangeLowHalves(c.operand(opcode));
    };
    static constexpr Column kDirect = with(with(kOperations, 0xA, kNone), 0xB, kCompareWithDirect);
    static constexpr Column kIndirect = with(kOperations, 0xD, kExchangeLowHalves);

    static constexpr std::array<Column, 16> kColumns{
        kBranchesAndMoves, kPageJumps,  kJumpsAndBits, kLogicAndPointers, kAccumulator, kDirect,
        kIndirect,         kIndirect,   kOperations,   kOperations,       kOperations,  kOperations,
        kOperations,       kOperations, kOperations,   kOperations};
};

void Mcs51::step() {
    const uint8_t opcode = fetch();
    Instructions::kColumns[opcode & 0x0F][opcode >> 4](*this, opcode);
}

} // namespace sim
