#ifndef FUZZINPUT_H
#define FUZZINPUT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// Reads numbers off the front of a fuzzer's input, zeros once it is used up.
class FuzzInput
{
public:
    FuzzInput(const uint8_t *data, size_t size) : data(data), left(size) { }

    uint8_t byte()
    {
        if (left == 0)
            return 0;
        --left;
        return *data++;
    }
    uint32_t u32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i)
            v = (v << 8) | byte();
        return v;
    }
    float f32()
    {
        const uint32_t bits = u32();
        float v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
    }
    // A number in 0..max, small ones as likely as the rest of the range.
    int upTo(int max)
    {
        const uint8_t pick = byte();
        const int v = int(u32() % uint32_t(max + 1));
        return pick & 1 ? v : v % 64;
    }
    const uint8_t *rest() const { return data; }
    size_t restSize() const { return left; }

private:
    const uint8_t *data;
    size_t left;
};

#endif // FUZZINPUT_H
