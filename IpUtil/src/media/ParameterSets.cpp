#include "media/ParameterSets.h"

#include "media/AnnexB.h"

#include <algorithm>
#include <tuple>

namespace Tavro8::media
{
bool ParameterSets::put(NalRole kind, const ParameterSetInfo& info, std::span<const std::uint8_t> nal)
{
    Entry* entry = find(kind, info.id);
    if (entry != nullptr && std::ranges::equal(entry->nal, nal))
        return true;
    const std::size_t replaced = entry == nullptr ? 0 : entry->nal.size() + startCode.size();
    if (stream.size() - replaced + startCode.size() + nal.size() > maxTotalBytes)
        return false;
    if (entry == nullptr) {
        const auto place = std::ranges::lower_bound(entries, std::tuple(kind, info.id), {},
                                                    [](const Entry& e) { return std::tuple(e.kind, e.info.id); });
        entry = &*entries.insert(place, Entry{kind, info, {}});
    }
    entry->info = info;
    entry->nal.assign(nal.begin(), nal.end());
    if (kind == NalRole::sequenceSet)
        newestSize = info.size;
    lastSize.reset();
    rebuildStream();
    ++changes;
    return true;
}

bool ParameterSets::has(NalRole kind) const noexcept
{
    return std::ranges::any_of(entries, [kind](const Entry& entry) { return entry.kind == kind; });
}

PictureSize ParameterSets::lookUpSize(std::uint32_t pictureSetId) const noexcept
{
    const Entry* const picture = find(NalRole::pictureSet, pictureSetId);
    const Entry* const sequence = picture == nullptr ? nullptr : find(NalRole::sequenceSet, picture->info.parentId);
    return sequence == nullptr ? newestSize : sequence->info.size;
}

ParameterSets::Entry* ParameterSets::find(NalRole kind, std::uint32_t id) noexcept
{
    const auto found =
        std::ranges::find_if(entries, [=](const Entry& entry) { return entry.kind == kind && entry.info.id == id; });
    return found == entries.end() ? nullptr : &*found;
}

const ParameterSets::Entry* ParameterSets::find(NalRole kind, std::uint32_t id) const noexcept
{
    const auto found =
        std::ranges::find_if(entries, [=](const Entry& entry) { return entry.kind == kind && entry.info.id == id; });
    return found == entries.end() ? nullptr : &*found;
}

void ParameterSets::rebuildStream()
{
    stream.clear();
    for (const Entry& entry : entries) {
        stream.insert(stream.end(), startCode.begin(), startCode.end());
        stream.insert(stream.end(), entry.nal.begin(), entry.nal.end());
    }
}
}  // namespace Tavro8::media
