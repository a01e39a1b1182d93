#include "korvane-worker/WorkerProtocol.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtGlobal>

namespace Korvane {

WorkerProtocol::WorkerProtocol(std::FILE* stream) : mStream(stream) {}

void WorkerProtocol::started()
{
    state(1);
}

void WorkerProtocol::finished()
{
    state(5);
}

void WorkerProtocol::failed(const QString& error)
{
    state(6, error);
}

void WorkerProtocol::stopped()
{
    state(4);
}

void WorkerProtocol::progress(double value)
{
    if (mSinceProgress.isValid() && mSinceProgress.elapsed() < 250) {
        return;
    }
    mSinceProgress.start();
    QJsonObject object;
    object.insert(QStringLiteral("progress"), qBound(0.0, value, 1.0));
    line(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void WorkerProtocol::state(int value, const QString& error)
{
    QJsonObject object;
    object.insert(QStringLiteral("state"), value);
    if (value == 6) {
        object.insert(QStringLiteral("error"), error);
    }
    line(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

void WorkerProtocol::line(const QByteArray& json)
{
    std::fwrite(json.constData(), 1, static_cast<size_t>(json.size()), mStream);
    std::fputc('\n', mStream);
    std::fflush(mStream);
}

} // namespace Korvane
