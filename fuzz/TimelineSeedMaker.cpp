// Writes timeline documents for the document fuzzer's seeds: one per media
// file given, built the way a job's fallback builds them, with a cut, a
// changed speed and a watermark so that most of the format appears.
// Usage: fuzz_timeline_seeds OUTPUT_DIR MEDIA...
#include "Common/Records/ConvertSource.h"
#include "Common/Timeline/TimelineProject.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cstdio>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments().mid(1);
    if (args.size() < 2) {
        std::fputs("usage: fuzz_timeline_seeds OUTPUT_DIR MEDIA...\n", stderr);
        return 2;
    }
    const QDir out(args.first());
    int written = 0;
    for (const QString& media : args.mid(1)) {
        Korvane::ConvertSource plain;
        plain.filePath = media;
        Korvane::ConvertSource edited = plain;
        edited.speed = 2.0f;
        edited.cut = {{100, 400}, {600, 300}};
        edited.selfAudios = {1};
        edited.crop = Korvane::CropParam{0.1, 0.1, 0.5, 0.5, true, false, 90};
        Korvane::WaterMarkParam mark;
        mark.filePath = media;
        mark.centerPos = QPoint(32, 24);
        mark.alpha = 0.5f;
        edited.waterMark = {mark};
        const QVariantMap size{{QStringLiteral("width"), 64}, {QStringLiteral("height"), 48}};
        int n = 0;
        for (const Korvane::ConvertSource& source : {plain, edited}) {
            QFile file(out.filePath(
                QStringLiteral("%1-%2.json").arg(QFileInfo(media).completeBaseName()).arg(n++)));
            if (file.open(QIODevice::WriteOnly)) {
                file.write(Korvane::makeTimelineProjectJson(source, size).toUtf8());
                ++written;
            }
        }
    }
    return written > 0 ? 0 : 1;
}
