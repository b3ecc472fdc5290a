// Puts the fragments of audio blocks together, in whatever order they come.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "net/protocol.h"

namespace tavistro {

/// Eight blocks under construction; a block uses slot sequence mod 8 and pushes out an older one
/// that is still incomplete there. Storage is kept from block to block: a stream of equal blocks
/// allocates only while its first ones come. Not thread-safe.
///
/// What a block claims to be costs nothing: memory is touched only for samples that have come, and
/// for the others once the block is complete.
class Reassembly {
  public:
    static constexpr std::size_t slot_count = 8;

    /// Forgets everything and expects blocks of `channels` channels from now on.
    void reset(std::size_t channels);
    /// Forgets every incomplete block.
    void clear();
    /// The same, and gives the storage back.
    void release();

    /// Takes one decoded fragment. True when it completes its block: `completed` then has the
    /// block's sequence, format and samples (parts that no fragment carried are silent); its times
    /// are left alone. Fragments of other channel counts, late ones and duplicates are dropped.
    bool offer(const TavistroProtocol::AudioFragment& fragment,
               TavistroProtocol::CompletedOutputBlock& completed);

  private:
    struct Waiting {
        TavistroProtocol::AudioFragment fragment;  ///< its payload is elsewhere
        std::size_t payload_offset;                ///< in waiting_payloads, bytes
    };

    struct ReassemblySlot {
        std::uint32_t sequence = 0;
        std::uint32_t sample_rate = 0;
        std::uint16_t frames = 0;
        std::uint16_t channels = 0;
        std::uint16_t fragment_count = 0;
        std::uint16_t received_count = 0;
        bool in_use = false;
        /// Planar. Fragments that continue what is there are put in at once; from the first one on
        /// that does not, they wait until the block is complete.
        std::vector<float> samples;
        std::size_t filled = 0;        ///< samples in their place; those behind mean nothing
        std::vector<Waiting> waiting;  ///< in the order of their arrival
        std::vector<std::uint8_t> waiting_payloads;
        std::vector<std::uint8_t> received;  ///< one flag per fragment

        void clear();
        void open_for(const TavistroProtocol::AudioFragment& fragment);
        bool belongs_to(const TavistroProtocol::AudioFragment& fragment) const;
        void store(const TavistroProtocol::AudioFragment& fragment);
        void put_in_place(const TavistroProtocol::AudioFragment& fragment,
                          std::span<const std::uint8_t> payload);
        /// Makes the samples whole: silence where none have come, then those that waited.
        void complete();
        std::size_t sample_count() const;
    };

    std::size_t channels_ = 0;
    std::array<ReassemblySlot, slot_count> slots_;
};

}  // namespace tavistro
