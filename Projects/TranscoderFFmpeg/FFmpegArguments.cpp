#include "TranscoderFFmpeg/FFmpegArguments.h"

#include "KorvaneBase/ChildProcess.h"
#include "TranscoderFFmpeg/FFmpegCommandMaker.h"

namespace Korvane {

namespace {

bool isQuoted(const QString& element)
{
    return element.size() >= 2 && element.startsWith(QLatin1Char('"')) &&
           element.endsWith(QLatin1Char('"'));
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
    return windowsCommandLine(arguments);
}

} // namespace Korvane
