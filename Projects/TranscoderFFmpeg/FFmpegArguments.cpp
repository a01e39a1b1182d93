#include "TranscoderFFmpeg/FFmpegArguments.h"

#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

#include <algorithm>

namespace Korvane {

namespace {

bool isQuoted(const QString& element)
{
    return element.size() >= 2 && element.startsWith(QLatin1Char('"')) &&
           element.endsWith(QLatin1Char('"'));
}

QString quoteWindowsArgument(const QString& argument)
{
    static const QString separators = QStringLiteral(" \t\n\v\"");
    const bool plain =
        !argument.isEmpty() && std::none_of(argument.begin(), argument.end(),
                                            [](QChar c) { return separators.contains(c); });
    if (plain) {
        return argument;
    }
    QString quoted(QLatin1Char('"'));
    qsizetype backslashes = 0;
    for (const QChar c : argument) {
        if (c == QLatin1Char('\\')) {
            ++backslashes;
            continue;
        }
        // Backslashes are literal unless a double quote follows them.
        const qsizetype count = c == QLatin1Char('"') ? backslashes * 2 + 1 : backslashes;
        quoted += QString(count, QLatin1Char('\\'));
        quoted += c;
        backslashes = 0;
    }
    // The closing quote follows: trailing backslashes are doubled.
    quoted += QString(backslashes * 2, QLatin1Char('\\'));
    quoted += QLatin1Char('"');
    return quoted;
}

} // namespace

QStringList ffmpegProgramArguments(const QStringList& elements)
{
    QStringList arguments;
    for (const QString& element : elements) {
        if (isPairedElement(element)) {
            const qsizetype blank = element.indexOf(QLatin1Char(' '));
            arguments << element.left(blank) << element.mid(blank + 1);
        } else if (isQuoted(element)) {
            arguments << element.mid(1, element.size() - 2);
        } else {
            arguments << element;
        }
    }
    return arguments;
}

QString windowsArgumentLine(const QStringList& arguments)
{
    QStringList quoted;
    for (const QString& argument : arguments) {
        quoted << quoteWindowsArgument(argument);
    }
    return quoted.join(QLatin1Char(' '));
}

} // namespace Korvane
