#include "asio/sample_format.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>

#include "asio/sample_loops.h"

namespace tavistro {

namespace {

using Byte = unsigned char;
using std::endian;

template <typename Real>
Real clamp_to_full_scale(Real x) noexcept {
    return x > Real{1} ? Real{1} : x < Real{-1} ? Real{-1} : x;  // NaN stays NaN
}

/// Full scale of an integer format.
template <unsigned bits>
constexpr auto scale = static_cast<double>((std::int64_t{1} << (bits - 1)) - 1);

template <unsigned bits>
float int_to_float(std::int32_t value) noexcept {
    return clamp_to_full_scale(static_cast<float>(static_cast<double>(value) / scale<bits>));
}

template <unsigned bits>
std::int32_t float_to_int(float sample) noexcept {
    constexpr double stand_in_for_nan = std::numeric_limits<std::int32_t>::min();
    const double scaled = static_cast<double>(clamp_to_full_scale(sample)) * scale<bits>;
    return static_cast<std::int32_t>(scaled == scaled ? scaled : stand_in_for_nan);
}

template <unsigned bits>
std::int32_t sign_extend(std::uint32_t value) noexcept {
    return static_cast<std::int32_t>(value << (32 - bits)) >> (32 - bits);
}

/// Memory offset of a word's byte i, counted from the least significant.
template <std::size_t bytes, endian order>
constexpr std::size_t place(std::size_t i) noexcept {
    return order == endian::little ? i : bytes - 1 - i;
}

template <typename Word, std::size_t bytes, endian order>
Word load(const Byte* from) noexcept {
    Word word = 0;
    for (std::size_t i = 0; i < bytes; ++i)
        word |= Word{from[place<bytes, order>(i)]} << (8 * i);
    return word;
}

template <std::size_t bytes, endian order, typename Word>
void store(Byte* to, Word word) noexcept {
    for (std::size_t i = 0; i < bytes; ++i)
        to[place<bytes, order>(i)] = static_cast<Byte>(word >> (8 * i));
}

// Integers pass through a short array, so that arithmetic and byte access vectorise separately
// without aliasing between the driver's bytes and the floats.
constexpr std::size_t chunk_samples = 64;
using Chunk = std::array<std::int32_t, chunk_samples>;

template <std::size_t bytes, unsigned bits, endian order>
void integers_to_float(const Byte* from, std::span<float> destination) noexcept {
    Chunk chunk;
    for (std::size_t done = 0; done < destination.size(); done += chunk.size()) {
        const std::size_t count = std::min(chunk.size(), destination.size() - done);
        for (std::size_t i = 0; i < count; ++i, from += bytes)
            chunk[i] = sign_extend<bits>(load<std::uint32_t, bytes, order>(from));
        for (std::size_t i = 0; i < count; ++i)
            destination[done + i] = int_to_float<bits>(chunk[i]);
    }
}

template <std::size_t bytes, unsigned bits, endian order>
void integers_from_float(Byte* to, std::span<const float> source) noexcept {
    Chunk chunk;
    for (std::size_t done = 0; done < source.size(); done += chunk.size()) {
        const std::size_t count = std::min(chunk.size(), source.size() - done);
        for (std::size_t i = 0; i < count; ++i)
            chunk[i] = float_to_int<bits>(source[done + i]);
        for (std::size_t i = 0; i < count; ++i, to += bytes)
            store<bytes, order>(to, static_cast<std::uint32_t>(chunk[i]));
    }
}

template <typename Real, typename Word, endian order>
void reals_to_float(const Byte* from, std::span<float> destination) noexcept {
    for (float& sample : destination) {
        const auto value = std::bit_cast<Real>(load<Word, sizeof(Word), order>(from));
        // Clamped before the conversion: the same result, without doubles beyond a float's range.
        sample = static_cast<float>(clamp_to_full_scale(value));
        from += sizeof(Word);
    }
}

template <typename Real, typename Word, endian order>
void reals_from_float(Byte* to, std::span<const float> source) noexcept {
    for (const float sample : source) {
        const auto value = static_cast<Real>(clamp_to_full_scale(sample));
        store<sizeof(Word), order>(to, std::bit_cast<Word>(value));
        to += sizeof(Word);
    }
}

void copy_to_float(const Byte* from, std::span<float> destination) noexcept {
    std::memcpy(destination.data(), from, destination.size_bytes());
}

void copy_from_float(Byte* to, std::span<const float> source) noexcept {
    std::memcpy(to, source.data(), source.size_bytes());
}

void silence_to_float(const Byte*, std::span<float> destination) noexcept {
    std::fill(destination.begin(), destination.end(), 0.0F);
}

constexpr std::size_t other_bytes = 4;

void silence_from_float(Byte* to, std::span<const float> source) noexcept {
    std::memset(to, 0, source.size() * other_bytes);
}

struct Format {
    std::uint32_t code;
    const char* name;
    std::size_t bytes;
    void (*to_float)(const Byte*, std::span<float>) noexcept;
    void (*from_float)(Byte*, std::span<const float>) noexcept;
};

template <std::size_t bytes, unsigned bits, endian order>
constexpr Format integer(std::uint32_t code, const char* name) noexcept {
    return {code, name, bytes, integers_to_float<bytes, bits, order>,
            integers_from_float<bytes, bits, order>};
}

template <typename Real, typename Word, endian order>
constexpr Format real(std::uint32_t code, const char* name) noexcept {
    return {code, name, sizeof(Word), reals_to_float<Real, Word, order>,
            reals_from_float<Real, Word, order>};
}

constexpr Format formats[] = {
    integer<2, 16, endian::big>(0, "ASIOSTInt16MSB"),
    integer<3, 24, endian::big>(1, "ASIOSTInt24MSB"),
    integer<4, 32, endian::big>(2, "ASIOSTInt32MSB"),
    real<float, std::uint32_t, endian::big>(3, "ASIOSTFloat32MSB"),
    real<double, std::uint64_t, endian::big>(4, "ASIOSTFloat64MSB"),
    integer<4, 16, endian::big>(8, "ASIOSTInt32MSB16"),
    integer<4, 18, endian::big>(9, "ASIOSTInt32MSB18"),
    integer<4, 20, endian::big>(10, "ASIOSTInt32MSB20"),
    integer<4, 24, endian::big>(11, "ASIOSTInt32MSB24"),
    integer<2, 16, endian::little>(16, "ASIOSTInt16LSB"),
    integer<3, 24, endian::little>(17, "ASIOSTInt24LSB"),
    integer<4, 32, endian::little>(18, "ASIOSTInt32LSB"),
    {19, "ASIOSTFloat32LSB", sizeof(float), copy_to_float, copy_from_float},
    real<double, std::uint64_t, endian::little>(20, "ASIOSTFloat64LSB"),
    integer<4, 16, endian::little>(24, "ASIOSTInt32LSB16"),
    integer<4, 18, endian::little>(25, "ASIOSTInt32LSB18"),
    integer<4, 20, endian::little>(26, "ASIOSTInt32LSB20"),
    integer<4, 24, endian::little>(27, "ASIOSTInt32LSB24"),
};
constexpr Format other{0, "Other", other_bytes, silence_to_float, silence_from_float};

// Code 19 is copied without a byte swap.
static_assert(endian::native == endian::little);

constexpr std::uint32_t codes = 28;

/// The formats, indexed by code.
constexpr auto format_at = [] {
    std::array<Format, codes> table{};
    table.fill(other);
    for (const Format& format : formats)
        table[format.code] = format;
    return table;
}();

const Format& format_of(std::uint32_t code) noexcept {
    return code < codes ? format_at[code] : other;
}

/// Null for a format that has the plain loops alone.
const SampleLoops* fast_loops(std::uint32_t code, SimdLevel level) noexcept {
    constexpr std::uint32_t first = 16, last = 18;  // packed little-endian integers
    return code >= first && code <= last ? fast_sample_loops(format_of(code).bytes, level)
                                         : nullptr;
}

/// Number of leading samples that the fast loops process.
constexpr std::size_t fast_part(std::size_t count) noexcept {
    return count - count % sample_loop_step;
}

}  // namespace

bool is_known_sample_type(std::uint32_t code) noexcept {
    return format_of(code).to_float != other.to_float;
}

const char* sample_type_name(std::uint32_t code) noexcept {
    return format_of(code).name;
}

std::size_t sample_size_bytes(std::uint32_t code) noexcept {
    return format_of(code).bytes;
}

void samples_to_float(const void* driver_buffer, std::uint32_t code, std::span<float> destination,
                      SimdLevel level) noexcept {
    const Format& format = format_of(code);
    const auto* from = static_cast<const Byte*>(driver_buffer);
    const SampleLoops* const fast = fast_loops(code, level);
    if (fast != nullptr && fast->to_float != nullptr) {
        const std::size_t done = fast_part(destination.size());
        fast->to_float(from, destination.data(), done);
        destination = destination.subspan(done);
        from += done * format.bytes;
    }
    if (!destination.empty()) format.to_float(from, destination);
}

void samples_from_float(void* driver_buffer, std::uint32_t code, std::span<const float> source,
                        SimdLevel level) noexcept {
    const Format& format = format_of(code);
    auto* to = static_cast<Byte*>(driver_buffer);
    const SampleLoops* const fast = fast_loops(code, level);
    if (fast != nullptr && fast->from_float != nullptr) {
        const std::size_t done = fast_part(source.size());
        fast->from_float(to, source.data(), done);
        source = source.subspan(done);
        to += done * format.bytes;
    }
    if (!source.empty()) format.from_float(to, source);
}

void write_silence(void* driver_buffer, std::uint32_t code, std::size_t frames) noexcept {
    std::memset(driver_buffer, 0, frames * format_of(code).bytes);
}

}  // namespace tavistro
