#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANEFILTERS_LIBRARY)
#define KORVANEFILTERS_EXPORT Q_DECL_EXPORT
#else
#define KORVANEFILTERS_EXPORT Q_DECL_IMPORT
#endif
