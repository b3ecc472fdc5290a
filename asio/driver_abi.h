// The binary interface between an ASIO host and an ASIO driver on 64-bit processors, for both
// sides.
//
// A driver object is a pointer to a function table in the order of class AsioDriver; the host
// passes it a record of callbacks. Integers are 32 bits wide and signed, including booleans (0 is
// false, any other value true). Sample rates are in Hz. No exception crosses the interface. x86-64
// and arm64 have a single calling convention per system, which plain virtual functions and function
// pointers use.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavistro {

// Results. Drivers return different negative codes for the same error: compare with zero only.
inline constexpr std::int32_t kAsioOk = 0;
inline constexpr std::int32_t kAsioFutureOk = 0x3F4847A0;  ///< success of future() only
inline constexpr std::int32_t kAsioNotPresent = -1000;     ///< no device, or not supported
inline constexpr std::int32_t kAsioHardwareFault = -999;
inline constexpr std::int32_t kAsioInvalidParameter = -998;
inline constexpr std::int32_t kAsioInvalidMode = -997;   ///< wrong state, unsupported size
inline constexpr std::int32_t kAsioNotAdvancing = -996;  ///< no sample position, not running
inline constexpr std::int32_t kAsioNoClock = -995;       ///< no clock, or rate not supported
inline constexpr std::int32_t kAsioNoMemory = -994;

// Selectors of the host's message callback.
inline constexpr std::int32_t kAsioSelectorSupported = 1;  ///< queries the selector in `value`
inline constexpr std::int32_t kAsioHostVersion = 2;
inline constexpr std::int32_t kAsioResetRequest = 3;
inline constexpr std::int32_t kAsioBufferSizeChange = 4;
inline constexpr std::int32_t kAsioResyncRequest = 5;
inline constexpr std::int32_t kAsioLatenciesChanged = 6;
inline constexpr std::int32_t kAsioSupportsTimeInfo = 7;
inline constexpr std::int32_t kAsioSupportsTimeCode = 8;
inline constexpr std::int32_t kAsioOverload = 15;  ///< the driver missed a deadline

// Flags of AsioTimeRecord.
inline constexpr std::uint32_t kAsioSystemTimeValid = 1;
inline constexpr std::uint32_t kAsioSamplePositionValid = 2;
inline constexpr std::uint32_t kAsioSampleRateValid = 4;
inline constexpr std::uint32_t kAsioSpeedValid = 8;

/// A 64-bit counter as two words, high word first.
struct AsioCount64 {
    std::uint32_t hi;
    std::uint32_t lo;
};

/// A channel for createBuffers. Each half holds one period of this channel.
struct AsioBufferInfo {
    std::int32_t isInput;
    std::int32_t channel;  ///< from 0, within the inputs or outputs
    void* half[2];         ///< filled by the driver
};

/// The host sets `channel` and `isInput`, the driver fills the rest. The name is zero-terminated
/// unless it fills all 32 bytes.
struct AsioChannelInfo {
    std::int32_t channel;
    std::int32_t isInput;
    std::int32_t isActive;  ///< has buffers
    std::int32_t group;
    std::int32_t type;  ///< sample type code (asio/sample_format.h)
    char name[32];
};

struct AsioClockSource {
    std::int32_t index;
    std::int32_t channel;  ///< associated channel, -1 for none
    std::int32_t group;    ///< associated channel group, -1 for none
    std::int32_t isCurrent;
    char name[32];
};

/// Passed only by address: drivers differ in its padding at the end and its alignment.
struct AsioTimeRecord {
    std::int32_t reserved0[4];
    double speed;            ///< 1.0 nominal
    AsioCount64 systemTime;  ///< ns
    AsioCount64 samplePosition;
    double sampleRate;
    std::uint32_t flags;
    char reserved1[12];
    double timeCodeSpeed;
    AsioCount64 timeCodeSamples;
    std::uint32_t timeCodeFlags;
    char reserved2[64];
};

/// Callbacks of the host, which a driver may call on any thread. It keeps the pointer to this
/// record, not a copy, until disposeBuffers has returned. It may call any of the four, regardless
/// of what the host supports.
struct AsioCallbacks {
    void (*bufferSwitch)(std::int32_t half, std::int32_t processNow);
    void (*sampleRateDidChange)(double rate);
    std::int32_t (*asioMessage)(std::int32_t selector, std::int32_t value, void* message,
                                double* option);
    AsioTimeRecord* (*bufferSwitchTimeInfo)(AsioTimeRecord* time, std::int32_t half,
                                            std::int32_t processNow);
};

/// A driver object, one virtual function per table slot. A host calls all functions but outputReady
/// on one thread. The order of the functions is the interface: do not add, remove or reorder any.
class AsioDriver {
  public:
    /// The interface identifier is the class identifier (16 bytes).
    virtual std::int32_t QueryInterface(const void* interface_id, void** object) noexcept = 0;
    virtual std::uint32_t AddRef() noexcept = 0;
    virtual std::uint32_t Release() noexcept = 0;

    /// Returns true (1) on success, unlike the other functions. After a failure, stop and
    /// disposeBuffers may still be called before Release.
    virtual std::int32_t init(void* window) noexcept = 0;
    virtual void getDriverName(char* name) noexcept = 0;  ///< up to 32 bytes
    virtual std::int32_t getDriverVersion() noexcept = 0;
    virtual void getErrorMessage(char* text) noexcept = 0;  ///< up to 124 bytes
    /// May call bufferSwitch before it returns.
    virtual std::int32_t start() noexcept = 0;
    virtual std::int32_t stop() noexcept = 0;
    virtual std::int32_t getChannels(std::int32_t* inputs, std::int32_t* outputs) noexcept = 0;
    virtual std::int32_t getLatencies(std::int32_t* input_frames,
                                      std::int32_t* output_frames) noexcept = 0;
    virtual std::int32_t getBufferSize(std::int32_t* minimum, std::int32_t* maximum,
                                       std::int32_t* preferred,
                                       std::int32_t* granularity) noexcept = 0;
    virtual std::int32_t canSampleRate(double rate) noexcept = 0;
    virtual std::int32_t getSampleRate(double* rate) noexcept = 0;
    virtual std::int32_t setSampleRate(double rate) noexcept = 0;
    virtual std::int32_t getClockSources(AsioClockSource* sources,
                                         std::int32_t* count) noexcept = 0;
    virtual std::int32_t setClockSource(std::int32_t index) noexcept = 0;
    virtual std::int32_t getSamplePosition(AsioCount64* samples,
                                           AsioCount64* nanoseconds) noexcept = 0;
    virtual std::int32_t getChannelInfo(AsioChannelInfo* info) noexcept = 0;
    /// Creates the buffers of all channels. `callbacks` must stay valid until disposeBuffers has
    /// returned. Some drivers overwrite other fields of both than the buffer addresses.
    virtual std::int32_t createBuffers(AsioBufferInfo* channels, std::int32_t channel_count,
                                       std::int32_t frames, AsioCallbacks* callbacks) noexcept = 0;
    virtual std::int32_t disposeBuffers() noexcept = 0;
    virtual std::int32_t controlPanel() noexcept = 0;
    virtual std::int32_t future(std::int32_t selector, void* parameter) noexcept = 0;
    /// Signals that the outputs are written. 0: the driver wants this call after every period.
    virtual std::int32_t outputReady() noexcept = 0;

  protected:
    ~AsioDriver() = default;  // use Release
};

static_assert(sizeof(void*) == 8);
static_assert(sizeof(AsioCount64) == 8 && offsetof(AsioCount64, lo) == 4);
static_assert(sizeof(AsioBufferInfo) == 24 && offsetof(AsioBufferInfo, half) == 8);
static_assert(sizeof(AsioChannelInfo) == 52 && offsetof(AsioChannelInfo, type) == 16 &&
              offsetof(AsioChannelInfo, name) == 20);
static_assert(sizeof(AsioClockSource) == 48 && offsetof(AsioClockSource, name) == 16);
static_assert(offsetof(AsioTimeRecord, speed) == 16 && offsetof(AsioTimeRecord, systemTime) == 24 &&
              offsetof(AsioTimeRecord, sampleRate) == 40 && offsetof(AsioTimeRecord, flags) == 48 &&
              offsetof(AsioTimeRecord, timeCodeSpeed) == 64 &&
              offsetof(AsioTimeRecord, timeCodeFlags) == 80 &&
              offsetof(AsioTimeRecord, reserved2) == 84);
static_assert(sizeof(AsioCallbacks) == 32 && offsetof(AsioCallbacks, asioMessage) == 16);
static_assert(sizeof(AsioDriver) == sizeof(void*));

}  // namespace tavistro
