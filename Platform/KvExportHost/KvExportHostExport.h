#pragma once

#include <QtCore/qglobal.h>

#if defined(KVEXPORTHOST_LIBRARY)
#define KVEXPORTHOST_EXPORT Q_DECL_EXPORT
#else
#define KVEXPORTHOST_EXPORT Q_DECL_IMPORT
#endif
