#pragma once

#include <QLoggingCategory>

// Debug chatter of media probing (probe arithmetic, chapter tables).
Q_DECLARE_LOGGING_CATEGORY(lcKorvaneDec)
