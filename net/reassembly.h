// Reassembles audio blocks from fragments that arrive in any order.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "net/protocol.h"

namespace tavistro {

/// Holds up to eight incomplete blocks. A block uses slot sequence mod 8 and replaces an older
/// incomplete block there. Storage is reused: a stream of equal blocks allocates only for its first
/// blocks. Not thread-safe.
///
/// Memory is touched only for samples that have arrived, and for the rest once the block is
/// complete: a datagram that claims a large block costs little.
class Reassembly {
  public:
    static constexpr std::size_t slot_count = 8;

    /// Discards all blocks and expects blocks of `channels` channels from now on.
    void reset(std::size_t channels);
    /// Discards all incomplete blocks.
    void clear();
    /// Discards all incomplete blocks and frees their storage.
    void release();

    /// Adds one decoded fragment. Returns true if it completes its block: `completed` then has the
    /// block's sequence, format and samples, with silence where no fragment had samples; its times
    /// are unchanged. Drops duplicates, late fragments and those with another channel count.
    bool offer(const TavistroProtocol::AudioFragment& fragment,
               TavistroProtocol::CompletedOutputBlock& completed);

  private:
    struct Waiting {
        TavistroProtocol::AudioFragment fragment;  ///< its payload is no longer valid
        std::size_t payload_offset;                ///< bytes, in waiting_payloads
    };

    struct ReassemblySlot {
        std::uint32_t sequence = 0;
        std::uint32_t sample_rate = 0;
        std::uint16_t frames = 0;
        std::uint16_t channels = 0;
        std::uint16_t fragment_count = 0;
        std::uint16_t received_count = 0;
        bool in_use = false;
        /// Planar. Fragments in sequence are stored directly; from the first one out of sequence
        /// on, all wait until the block is complete.
        std::vector<float> samples;
        std::size_t filled = 0;        ///< valid samples; those beyond are undefined
        std::vector<Waiting> waiting;  ///< in order of arrival
        std::vector<std::uint8_t> waiting_payloads;
        std::vector<std::uint8_t> received;  ///< one flag per fragment

        void clear();
        void open_for(const TavistroProtocol::AudioFragment& fragment);
        bool belongs_to(const TavistroProtocol::AudioFragment& fragment) const;
        void store(const TavistroProtocol::AudioFragment& fragment);
        void put_in_place(const TavistroProtocol::AudioFragment& fragment,
                          std::span<const std::uint8_t> payload);
        /// Fills the rest of the block with silence, then stores the waiting fragments.
        void complete();
        std::size_t sample_count() const;
    };

    std::size_t channels_ = 0;
    std::array<ReassemblySlot, slot_count> slots_;
};

}  // namespace tavistro
