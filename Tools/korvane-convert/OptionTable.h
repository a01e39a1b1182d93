#pragma once

#include "korvane-convert/OptionValues.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace Korvane {

// Whether an option describes the flag job: such options need INPUT OUTPUT
// and refuse --job and --probe.
enum class OptionScope
{
    Job,
    Other
};

// Where a row goes in the help.
enum class HelpLayout
{
    OwnLine,  // "  SYNOPSIS", padded to the help column, then the help
    JoinNext, // the synopsis is listed, with ", ", before the next row's
    Append,   // "; SYNOPSIS" and the help (with its own separator) end the line before
};

// One option of korvane-convert: how it is spelled, applied and described.
struct OptionRow
{
    QString heading;   // the help section that starts with this row; empty: none
    QStringList names; // the first is the one the help and the messages show
    QString valueName; // empty for a flag, which takes no value
    OptionScope scope;
    ApplyValue apply;
    HelpLayout layout;
    QString help; // may span lines, which are indented to the help column
};

// Every option, in the order of the help.
const QList<OptionRow>& optionTable();

// The row an option name (with its dashes) belongs to; null when none does.
const OptionRow* findOption(const QString& name);

// The option sections of the help, laid out from the table.
QString optionHelp();

} // namespace Korvane
