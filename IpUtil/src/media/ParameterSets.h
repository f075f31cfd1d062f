#pragma once

#include "media/NalUnit.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// The parameter sets of a video track that are in force, by kind and id; a set replaces the one of its id.
class ParameterSets {
public:
    /// Enough for any real stream; a hostile one cannot make us keep more.
    static constexpr std::size_t maxTotalBytes = 64 * 1024;

    /// Takes a copy of a NAL unit. Allocates only when it is new or differs from the one kept.
    /// False when there is no room for it.
    bool put(NalRole kind, const ParameterSetInfo& info, std::span<const std::uint8_t> nal);

    bool has(NalRole kind) const noexcept;
    bool has(NalRole kind, std::uint32_t id) const noexcept { return find(kind, id) != nullptr; }

    /// All sets with start codes: video, sequence, picture sets. Valid until the next `put`.
    std::span<const std::uint8_t> annexB() const noexcept { return stream; }

    /// Counts the changes; 0 while there is no set.
    std::uint64_t version() const noexcept { return changes; }

    /// Picture size by way of the picture set that a slice names; the newest sequence set's when that fails.
    PictureSize sizeFor(std::uint32_t pictureSetId) noexcept
    {
        if (lastSize && lastSize->pictureSetId == pictureSetId)
            return lastSize->size;
        const PictureSize size = lookUpSize(pictureSetId);
        lastSize = {pictureSetId, size};
        return size;
    }

private:
    struct Entry {
        NalRole kind{};
        ParameterSetInfo info;
        std::vector<std::uint8_t> nal;
    };

    PictureSize lookUpSize(std::uint32_t pictureSetId) const noexcept;
    Entry* find(NalRole kind, std::uint32_t id) noexcept;
    const Entry* find(NalRole kind, std::uint32_t id) const noexcept;
    void rebuildStream();

    std::vector<Entry> entries;  // sorted by kind, then id
    std::vector<std::uint8_t> stream;
    PictureSize newestSize;
    // What the last slice asked for; most streams have one picture set. Nothing after a change.
    struct KnownSize {
        std::uint32_t pictureSetId = 0;
        PictureSize size;
    };
    std::optional<KnownSize> lastSize;
    std::uint64_t changes = 0;
};
}  // namespace Tavro8::media
