#pragma once

#include "korvane-convert/CommandLine.h"

#include <QString>
#include <QStringList>

#include <functional>

namespace Korvane {

// What the options of one command line have said so far, before the modes
// and the file arguments are settled.
struct OptionState
{
    CommandLine commandLine;
    ConvertJob job;           // the flag job, filled option by option
    QString gpu;              // --gpu as given; "auto" and "none" are settled at the end
    QList<ConvertMode> modes; // every mode option, in the order given
    bool anyJobOption = false;
};

// Applies one option's value to the state. Returns an empty text when the
// value was applied, otherwise what the option expects, for
// "OPTION expects WHAT, got 'VALUE'". A flag is applied with an empty value.
using ApplyValue = std::function<QString(OptionState& state, const QString& value)>;

// Whether a value's surrounding white space is dropped before it is checked.
enum class Spaces
{
    Kept,
    Trimmed
};

// The typed appliers the option table is made of.
ApplyValue flag(std::function<void(OptionState&)> set);
// An integer from min to max, white space around it allowed.
ApplyValue integer(qint64 min, qint64 max, std::function<void(OptionState&, qint64)> set);
// A number from min to max, white space around it allowed.
ApplyValue decimal(double min, double max, const QString& what,
                   std::function<void(OptionState&, double)> set);
// Any text that is not empty; set gets it trimmed when spaces is Trimmed.
ApplyValue text(const QString& what, Spaces spaces,
                std::function<void(OptionState&, const QString&)> set);
// One of the lower-case choices, in any case; set gets the choice.
ApplyValue oneOf(const QStringList& choices, const QString& what, Spaces spaces,
                 std::function<void(OptionState&, const QString&)> set);

// The values with a syntax of their own, named by their option.
QString applySize(OptionState& state, const QString& value);       // WxH
QString applyAudioCodec(OptionState& state, const QString& value); // a codec name or none
QString applyCrop(OptionState& state, const QString& value);       // X,Y,W,H fractions
QString applyWatermark(OptionState& state, const QString& value);  // PATH[@X,Y][,alpha=A][,scale=S]
QString applyCut(OptionState& state, const QString& value);        // BEGIN_MS-END_MS
QString applyMeta(OptionState& state, const QString& value);       // KEY=VALUE

// The crop record of a job, made (the whole picture) on first use: flips and
// rotations live in it too.
CropParam& cropOf(ConvertJob& job);

} // namespace Korvane
