#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANECOMMON_LIBRARY)
#define KORVANECOMMON_EXPORT Q_DECL_EXPORT
#else
#define KORVANECOMMON_EXPORT Q_DECL_IMPORT
#endif
