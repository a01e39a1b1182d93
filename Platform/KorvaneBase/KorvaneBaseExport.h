#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANEBASE_LIBRARY)
#define KORVANEBASE_EXPORT Q_DECL_EXPORT
#else
#define KORVANEBASE_EXPORT Q_DECL_IMPORT
#endif
