#include "mcs51.h"

#include <utility>

namespace sim {

/*
 * An interpreter for the MCS-51 instruction set, for programs that poll.  The columns of the opcode
 * table decide: from 4 on the low half names the operand (4 accumulator or immediate, 5 direct, 6
 * and 7 indirect, the rest a register) and the high half the operation; the columns below hold
 * what does not fit that scheme.  The parity flag is not kept.
 */
namespace {

constexpr uint8_t kCarryFlag = 0x80;
constexpr uint8_t kHalfCarryFlag = 0x40;
constexpr uint8_t kOverflowFlag = 0x04;
constexpr uint8_t kBankMask = 0x18;

// Bits below 0x80 lie in memory from 0x20 on, the others in every eighth special register.
uint8_t byteOfBit(uint8_t address) {
    return static_cast<uint8_t>(address < 0x80 ? 0x20 + address / 8 : address & 0xF8);
}

} // namespace

void Mcs51::reset() {
    programCounter_ = 0;
    internal_.fill(0);
    internal_[kStackPointer] = 7;
}

void Mcs51::step() {
    const uint8_t opcode = fetch();
    switch (opcode & 0x0F) {
    case 0:
        branchOrMove(opcode);
        break;
    case 1:
        pageJump(opcode);
        break;
    case 2:
        jumpOrBit(opcode);
        break;
    case 3:
        logicOrPointer(opcode);
        break;
    case 4:
        operateOnAccumulator(opcode);
        break;
    default:
        operate(opcode);
        break;
    }
}

uint16_t Mcs51::fetchWord() {
    const uint8_t high = fetch();
    return static_cast<uint16_t>(high << 8 | fetch());
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

// What the columns from 5 on name.
uint8_t &Mcs51::operand(uint8_t opcode) {
    const unsigned column = opcode & 0x0FU;
    if (column >= 8)
        return registerAt(column - 8);
    return column == 5 ? direct(fetch()) : indirect(registerAt(column - 6));
}

uint8_t Mcs51::source(uint8_t opcode) {
    return (opcode & 0x0F) == 4 ? fetch() : operand(opcode);
}

// The EZ-USB has no port 2 that would hold the page.
uint16_t Mcs51::pagePointer(unsigned number) {
    return static_cast<uint16_t>(internal_[kPage] << 8 | registerAt(number));
}

uint16_t Mcs51::dataPointer() const {
    return static_cast<uint16_t>(internal_[kDataPointerHigh] << 8 | internal_[kDataPointerLow]);
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
    programCounter_ = static_cast<uint16_t>(high << 8 | pop());
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

void Mcs51::compareAndJump(uint8_t opcode) {
    const unsigned column = opcode & 0x0FU;
    const uint8_t first = column <= 5 ? a() : operand(opcode);
    const uint8_t second = column == 5 ? operand(opcode) : fetch();
    setCarry(first < second);
    jumpIf(first != second);
}

void Mcs51::decrementAndJump(uint8_t opcode) {
    jumpIf(--operand(opcode) != 0);
}

// Within 2 KiB; every other one is a call.
void Mcs51::pageJump(uint8_t opcode) {
    const uint8_t low = fetch();
    const auto target =
        static_cast<uint16_t>((programCounter_ & 0xF800) | (opcode & 0xE0) << 3 | low);
    if ((opcode & 0x10) != 0)
        call(target);
    else
        programCounter_ = target;
}

void Mcs51::operateOnAccumulator(uint8_t opcode) {
    switch (opcode) {
    case 0x04:
        ++a();
        break;
    case 0x14:
        --a();
        break;
    case 0x74:
        a() = fetch();
        break;
    case 0x84:
        divide();
        break;
    case 0xA4:
        multiply();
        break;
    case 0xC4:
        a() = static_cast<uint8_t>(a() << 4 | a() >> 4);
        break;
    case 0xD4:
        decimalAdjust();
        break;
    case 0xE4:
        a() = 0;
        break;
    case 0xF4:
        a() = static_cast<uint8_t>(~a());
        break;
    default:
        operate(opcode);
        break;
    }
}

void Mcs51::operate(uint8_t opcode) {
    switch (opcode >> 4) {
    case 0x0:
        ++operand(opcode);
        break;
    case 0x1:
        --operand(opcode);
        break;
    case 0x2:
        add(source(opcode), false);
        break;
    case 0x3:
        add(source(opcode), carry());
        break;
    case 0x4:
        a() |= source(opcode);
        break;
    case 0x5:
        a() &= source(opcode);
        break;
    case 0x6:
        a() ^= source(opcode);
        break;
    case 0x7: {
        uint8_t &target = operand(opcode);
        target = fetch();
        break;
    }
    case 0x8: {
        const uint8_t value = operand(opcode);
        direct(fetch()) = value;
        break;
    }
    case 0x9:
        subtract(source(opcode));
        break;
    case 0xA:
        if (opcode != 0xA5) { // no instruction
            uint8_t &target = operand(opcode);
            target = direct(fetch());
        }
        break;
    case 0xB:
        compareAndJump(opcode);
        break;
    case 0xC:
        std::swap(a(), operand(opcode));
        break;
    case 0xD:
        if ((opcode & 0x0E) == 0x06) { // exchanges the low halves
            uint8_t &other = operand(opcode);
            const auto low = static_cast<uint8_t>(other & 0x0F);
            other = static_cast<uint8_t>((other & 0xF0) | (a() & 0x0F));
            a() = static_cast<uint8_t>((a() & 0xF0) | low);
        } else {
            decrementAndJump(opcode);
        }
        break;
    case 0xE:
        a() = operand(opcode);
        break;
    default:
        operand(opcode) = a();
        break;
    }
}

void Mcs51::branchOrMove(uint8_t opcode) {
    switch (opcode >> 4) {
    case 0x0: // no operation
        break;
    case 0x1: {
        const uint8_t address = fetch();
        const bool was = bit(address);
        if (was)
            setBit(address, false);
        jumpIf(was);
        break;
    }
    case 0x2:
        jumpIf(bit(fetch()));
        break;
    case 0x3:
        jumpIf(!bit(fetch()));
        break;
    case 0x4:
        jumpIf(carry());
        break;
    case 0x5:
        jumpIf(!carry());
        break;
    case 0x6:
        jumpIf(a() == 0);
        break;
    case 0x7:
        jumpIf(a() != 0);
        break;
    case 0x8:
        jumpIf(true);
        break;
    case 0x9:
        setDataPointer(fetchWord());
        break;
    case 0xA: {
        const bool inverted = !bit(fetch());
        setCarry(carry() || inverted);
        break;
    }
    case 0xB: {
        const bool inverted = !bit(fetch());
        setCarry(carry() && inverted);
        break;
    }
    case 0xC:
        push(direct(fetch()));
        break;
    case 0xD: {
        const uint8_t address = fetch();
        direct(address) = pop();
        break;
    }
    case 0xE:
        a() = bus_.read(dataPointer());
        break;
    default:
        bus_.write(dataPointer(), a());
        break;
    }
}

void Mcs51::jumpOrBit(uint8_t opcode) {
    switch (opcode >> 4) {
    case 0x0:
        programCounter_ = fetchWord();
        break;
    case 0x1:
        call(fetchWord());
        break;
    case 0x2:
    case 0x3:
        returnFromCall();
        break;
    case 0x4:
        direct(fetch()) |= a();
        break;
    case 0x5:
        direct(fetch()) &= a();
        break;
    case 0x6:
        direct(fetch()) ^= a();
        break;
    case 0x7: {
        const bool value = bit(fetch());
        setCarry(carry() || value);
        break;
    }
    case 0x8: {
        const bool value = bit(fetch());
        setCarry(carry() && value);
        break;
    }
    case 0x9:
        setBit(fetch(), carry());
        break;
    case 0xA:
        setCarry(bit(fetch()));
        break;
    case 0xB: {
        const uint8_t address = fetch();
        setBit(address, !bit(address));
        break;
    }
    case 0xC:
        setBit(fetch(), false);
        break;
    case 0xD:
        setBit(fetch(), true);
        break;
    case 0xE:
        a() = bus_.read(pagePointer(0));
        break;
    default:
        bus_.write(pagePointer(0), a());
        break;
    }
}

void Mcs51::logicOrPointer(uint8_t opcode) {
    switch (opcode >> 4) {
    case 0x0:
    case 0x1:
    case 0x2:
    case 0x3:
        rotate(opcode);
        break;
    case 0x4: {
        uint8_t &target = direct(fetch());
        target |= fetch();
        break;
    }
    case 0x5: {
        uint8_t &target = direct(fetch());
        target &= fetch();
        break;
    }
    case 0x6: {
        uint8_t &target = direct(fetch());
        target ^= fetch();
        break;
    }
    case 0x7:
        programCounter_ = static_cast<uint16_t>(dataPointer() + a());
        break;
    case 0x8:
        a() = bus_.read(static_cast<uint16_t>(programCounter_ + a()));
        break;
    case 0x9:
        a() = bus_.read(static_cast<uint16_t>(dataPointer() + a()));
        break;
    case 0xA:
        setDataPointer(static_cast<uint16_t>(dataPointer() + 1));
        break;
    case 0xB:
        setCarry(!carry());
        break;
    case 0xC:
        setCarry(false);
        break;
    case 0xD:
        setCarry(true);
        break;
    case 0xE:
        a() = bus_.read(pagePointer(1));
        break;
    default:
        bus_.write(pagePointer(1), a());
        break;
    }
}

} // namespace sim
