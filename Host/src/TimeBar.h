#pragma once

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <cstddef>
#include <span>
#include <string>

namespace Host
{
enum class BarCharacters { ascii, blocks };  ///< blocks: those of Unicode, as UTF-8

/// What is recorded in an interval as one line, and below it a scale of hours, days or months in UTC. For example, two
/// days of which the first is recorded from noon on:
///
///     ............####################################
///     |11-20      |12:00      |11-21      |12:00
///
/// `covered` is sorted and free of overlaps, as `coverage` makes it. Each column stands for an equal part of the
/// interval and shows how much of it is covered: in ASCII '.' nothing, '-' less than half, '+' more, '#' all; with
/// blocks a dot, bars of seven heights, and the full block. A moment without length shows like the smallest part. The
/// bar has `columns` columns, or one for each millisecond of an interval of fewer. The scale is left out where none
/// fits.
std::string drawTimeBar(const Tavro8::GDRV::DateTimeRange& interval,
                        std::span<const Tavro8::GDRV::DateTimeRange> covered, std::size_t columns,
                        BarCharacters characters);
}  // namespace Host
