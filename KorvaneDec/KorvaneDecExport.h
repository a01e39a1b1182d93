#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANEDEC_LIBRARY)
#define KORVANEDEC_EXPORT Q_DECL_EXPORT
#else
#define KORVANEDEC_EXPORT Q_DECL_IMPORT
#endif
