#pragma once

#include <QtCore/qglobal.h>

#if defined(KVAVGLUE_LIBRARY)
#define KVAVGLUE_EXPORT Q_DECL_EXPORT
#else
#define KVAVGLUE_EXPORT Q_DECL_IMPORT
#endif
