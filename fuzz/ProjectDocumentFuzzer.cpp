// Timeline documents reach the render engine from another process and may be
// damaged. Reading one never crashes; a document that reads has a clip, a
// usable canvas and a finite duration.
#include "KorvaneDec/NLEditor/ProjectDocument.h"

#include <QString>

#include <cmath>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace Korvane;
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    ProjectDocument document;
    QString error;
    if (!parseProjectDocument(text, &document, &error)) {
        if (error.isEmpty()) {
            std::abort();
        }
        return 0;
    }
    if (document.mainClips.isEmpty() && document.audioClips.isEmpty() &&
        document.imageClips.isEmpty()) {
        std::abort();
    }
    const QSize canvas = document.canvas();
    if (canvas.width() < 2 || canvas.height() < 2 || canvas.width() % 2 || canvas.height() % 2) {
        std::abort();
    }
    if (!std::isfinite(document.durationMs())) {
        std::abort();
    }
    return 0;
}
