#pragma once

#include "KorvaneDec/Filters/FiltersExport.h"

#include <QString>

namespace Korvane {

// The colour corrections of a timeline clip as libavfilter filter text.
// Every control takes -100..100 with 0 meaning "unchanged" and is mapped
// linearly onto one FFmpeg filter:
//
//   Brightness        eq=brightness=v/200            (-0.5 .. 0.5 of full scale)
//   Contrast          eq=contrast=1+v/100             (0 .. 2)
//   Saturation        eq=saturation=1+v/100           (0 .. 2)
//   Sharpen           unsharp=5:5:1.5*v/100           (luma amount -1.5 .. 1.5,
//                                                      negative values blur)
//   Shadow            curves, the 0.25 point moved by 0.15*v/100
//   HighLight         curves, the 0.75 point moved by 0.15*v/100
//   ColorTemperature  colortemperature=temperature=6500-35*v  (positive is
//                                                      warmer: 3000 K .. 10000 K)
//   ColorHue          hue=h=1.8*v                     (-180 .. 180 degrees)
//
// Returns an empty string for a value of 0 (nothing to do) and for a name
// that is not one of the eight above. Values outside -100..100 are clamped.
KORVANEFILTERS_EXPORT QString colourFilterText(const QString& name, int value);

// True for the eight names colourFilterText knows.
KORVANEFILTERS_EXPORT bool isColourFilterName(const QString& name);

// A red/cyan anaglyph of the picture. `anaglyphType` is the effect name of
// the document: containing "Side by Side" the input is read as left|right
// (the output is half as wide), containing "Top and Bottom" as left over
// right (half as high), otherwise the picture is 2D and its right view is
// made by shifting it a few pixels. `labelPrefix` keeps the internal pad
// labels of the 2D form unique within one graph. The text is one chain: one
// input, one output.
KORVANEFILTERS_EXPORT QString anaglyphFilterText(const QString& anaglyphType,
                                                 const QString& labelPrefix);

} // namespace Korvane
