#pragma once

#include "Common/Records/AVTaskOutputParam.h"
#include "Common/Records/ConvertSource.h"
#include "Common/Records/RecordsExport.h"

#include <QString>
#include <QVariantList>
#include <QVariantMap>

namespace Korvane {

// Variant map -> JSON object text; indented layout when `indented`, else
// compact.
KORVANERECORDS_EXPORT QString variantMapToJson(const QVariantMap& map, bool indented);

// JSON text (UTF-8) -> variant map. Text that does not parse, or whose top
// level is not an object, gives an empty map; never an error.
KORVANERECORDS_EXPORT QVariantMap jsonToVariantMap(const QString& json);

// {"ConvertSource": {...}} in the indented layout. "crop" is always written
// (a full-picture crop when absent) and "speed" always (1.0 when absent).
KORVANERECORDS_EXPORT QString convertSourceToJson(const ConvertSource& source);

// The inverse, tolerant of anything: without a non-empty "ConvertSource"
// object the result is a default ConvertSource. Otherwise every missing key
// reads as its type's zero (so a missing "volume" reads 0 and a missing
// watermark "alpha" 0), "speed" is always set afterwards, and "extraParam"
// always holds exactly the five keys the host's converters use.
KORVANERECORDS_EXPORT ConvertSource convertSourceFromJson(const QString& json);

// The flat object with "type": "AVTaskOutputParam", indented layout. The
// video keys appear only with a video codec name, the audio keys only with an
// audio codec name.
KORVANERECORDS_EXPORT QString outputParamToJson(const AVTaskOutputParam& param);

// The flat object outputParamToJson writes, read key by key, as the worker
// and the host program's job files need it: a missing key, or a value of
// another JSON kind than its field's (text where a number belongs, a number
// where a flag belongs), gives the field's zero (empty text, 0, false);
// whole numbers are truncated, and read 0 outside their field's range. "type"
// is not required.
KORVANERECORDS_EXPORT AVTaskOutputParam outputParamFromVariantMap(const QVariantMap& map);

// The whole file decoded as UTF-8; empty when it cannot be opened.
KORVANERECORDS_EXPORT QString readTextFile(const QString& path);

// The top-level array of JSON text; empty when it does not parse.
KORVANERECORDS_EXPORT QVariantList jsonToVariantList(const QString& json);

// The cleaned path of `first`, the native separator and `second`.
KORVANERECORDS_EXPORT QString joinPath(const QString& first, const QString& second);

} // namespace Korvane
