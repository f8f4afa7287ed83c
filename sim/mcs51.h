#pragma once

#include <array>
#include <cstdint>

namespace sim {

// An 8051 processor, for programs that poll: it has no interrupts, no timers and no parity flag.
class Mcs51 {
public:
    // The memory outside the processor, for program and data alike.
    class Bus {
    public:
        virtual ~Bus() = default;
        virtual uint8_t read(uint16_t address) = 0;
        virtual void write(uint16_t address, uint8_t value) = 0;
    };

    explicit Mcs51(Bus &bus) : bus_(bus) {}

    void reset();
    // Executes one instruction.
    void step();

private:
    struct Instructions;

    enum SpecialRegister : uint8_t {
        kStackPointer = 0x81,
        kDataPointerLow = 0x82,
        kDataPointerHigh = 0x83,
        kPage = 0x92, // the high byte of the address for MOVX through R0 and R1
        kProgramStatus = 0xD0,
        kAccumulator = 0xE0,
        kB = 0xF0,
    };

    uint8_t fetch() { return bus_.read(programCounter_++); }
    uint16_t fetchWord();
    void jumpIf(bool condition);

    uint8_t &direct(uint8_t address) { return internal_[address]; }
    uint8_t &indirect(uint8_t address);
    uint8_t &registerAt(unsigned number);
    uint8_t &operand(uint8_t opcode);
    uint8_t &a() { return internal_[kAccumulator]; }
    uint16_t indexed(uint16_t base); // plus the accumulator
    uint16_t pagePointer(unsigned number);
    uint16_t dataPointer() const;
    void setDataPointer(uint16_t value);
    bool bit(uint8_t address);
    void setBit(uint8_t address, bool value);
    bool carry() const;
    void setCarry(bool value);
    void setFlags(bool carryOut, bool halfCarry, bool overflow);

    void push(uint8_t value);
    uint8_t pop();
    void call(uint16_t target);
    void returnFromCall();

    void add(uint8_t value, bool carryIn);
    void subtract(uint8_t value);
    void multiply();
    void divide();
    void decimalAdjust();
    void rotate(uint8_t opcode);
    void compareAndJump(uint8_t first, uint8_t second);
    void exchangeLowHalves(uint8_t &other);
    bool testAndClearBit(uint8_t address);
    void pageJump(uint8_t opcode);

    Bus &bus_;
    uint16_t programCounter_ = 0;
    std::array<uint8_t, 256> internal_{}; // lower memory, and the special registers
    std::array<uint8_t, 128> upper_{};    // upper memory, for indirect addresses only
};

} // namespace sim
