#pragma once

#include <QtCore/qglobal.h>

#if defined(KVMEDIAINFO_LIBRARY)
#define KVMEDIAINFO_EXPORT Q_DECL_EXPORT
#else
#define KVMEDIAINFO_EXPORT Q_DECL_IMPORT
#endif
