#include "Common/Records/JobInputs.h"

#include "KorvaneBase/FileIdentity.h"

#include <QDirIterator>
#include <QFileInfo>

namespace Korvane {

QStringList jobInputFiles(const ConvertSource& source)
{
    QStringList files{source.filePath};
    for (const WaterMarkParam& mark : source.waterMark) {
        files << mark.filePath;
    }
    files << source.coverPath;
    for (const AttachedAudio& audio : source.attachedAudio) {
        files << audio.filePath;
    }
    for (const AttachedSubtitle& subtitle : source.attachedSubtitle) {
        files << subtitle.filePath;
    }
    files << source.aiMosaic.path << source.aiAutoReframe.path;
    if (!source.effectFilter.isEmpty() && QFileInfo(source.effectFilter).isDir()) {
        QDirIterator effect(source.effectFilter, QDir::Files | QDir::Hidden,
                            QDirIterator::Subdirectories);
        while (effect.hasNext()) {
            files << effect.next();
        }
    }
    files.removeAll(QString());
    return files;
}

QString inputOverwrittenBy(const ConvertSource& source, const QString& outputPath)
{
    return inputThatIs(jobInputFiles(source), outputPath);
}

} // namespace Korvane
