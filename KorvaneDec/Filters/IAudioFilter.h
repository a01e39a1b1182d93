#pragma once

#include "KorvaneDec/Filters/FiltersExport.h"

#include <QString>

#include <memory>

namespace Korvane {

// An audio filter of a timeline clip. The engine runs audio through
// libavfilter, so a filter contributes its libavfilter text to the clip's
// chain instead of touching samples itself.
class KORVANEFILTERS_EXPORT IAudioFilter
{
public:
    virtual ~IAudioFilter();
    // The document's name of the filter ("Volume").
    virtual QString name() const = 0;
    // libavfilter text of the filter; empty when it changes nothing.
    virtual QString graphText() const = 0;
};

// The filter for a document entry, or null for a name this engine does not
// know.
KORVANEFILTERS_EXPORT std::unique_ptr<IAudioFilter> makeAudioFilter(const QString& name, int value);

} // namespace Korvane
