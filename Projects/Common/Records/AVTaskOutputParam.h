#pragma once

#include <QString>

namespace Korvane {

// What a conversion job produces. Bit rates are kilobits per second.
struct AVTaskOutputParam
{
    struct Video
    {
        QString codecName; // empty: no video settings given
        qint32 width = 0;
        qint32 height = 0;
        double frameRate = 0.0;
        qint64 bitrateKbps = 0;
    };
    struct Audio
    {
        QString codecName; // empty: no audio settings given
        qint32 sampleRate = 0;
        qint32 channels = 0;
        qint64 bitrateKbps = 0;
    };
    struct Acceleration
    {
        QString losslessFormat; // container for a stream-copy conversion
        bool hardwareEnabled = false;
        QString gpuName;
    };

    QString outputPath;
    QString format; // container or preset name
    Video video;
    Audio audio;
    Acceleration acceleration;
    bool ipcMode = false;
    qint32 taskMode = 0;
    bool vodDeMuxEnable = false;
    bool twoPassEncoding = false;
    bool isAlpha = false;
    bool isUseSourceSDKPlatformSolution = false;
};

} // namespace Korvane
