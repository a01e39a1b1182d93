#include "KorvaneBase/ChildProcess.h"

#include <QDir>
#include <QStandardPaths>

#include <algorithm>

namespace Korvane {

namespace {

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

QString windowsCommandLine(const QStringList& arguments)
{
    QStringList quoted;
    for (const QString& argument : arguments) {
        quoted << quoteWindowsArgument(argument);
    }
    return quoted.join(QLatin1Char(' '));
}

QList<QByteArray> takeLines(QByteArray& buffer)
{
    QList<QByteArray> lines;
    qsizetype start = 0;
    for (qsizetype end = buffer.indexOf('\n'); end >= 0; end = buffer.indexOf('\n', start)) {
        QByteArray line = buffer.mid(start, end - start);
        if (line.endsWith('\r')) {
            line.chop(1);
        }
        lines.append(line);
        start = end + 1;
    }
    buffer.remove(0, start);
    return lines;
}

QString cacheFolder(const QString& relativePath)
{
    return QDir::cleanPath(QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
                           QLatin1Char('/') + relativePath);
}

} // namespace Korvane
