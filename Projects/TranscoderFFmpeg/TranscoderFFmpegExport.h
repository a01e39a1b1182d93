#pragma once

#include <QtCore/qglobal.h>

#if defined(TRANSCODERFFMPEG_LIBRARY)
#define TRANSCODERFFMPEG_EXPORT Q_DECL_EXPORT
#else
#define TRANSCODERFFMPEG_EXPORT Q_DECL_IMPORT
#endif
