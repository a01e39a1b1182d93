#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANEADAPTER_LIBRARY)
#define KORVANEADAPTER_EXPORT Q_DECL_EXPORT
#else
#define KORVANEADAPTER_EXPORT Q_DECL_IMPORT
#endif
