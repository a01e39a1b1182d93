#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

// Everything in `expected` holds in `actual`: objects key by key (null: the
// key is absent), arrays element by element at equal length, numbers to 1e-6.
inline void expectFragment(const QJsonValue& actual, const QJsonValue& expected, const QString& at)
{
    if (expected.isObject()) {
        const QJsonObject object = expected.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            const QJsonValue value = actual.toObject().value(it.key());
            if (it->isNull()) {
                EXPECT_TRUE(value.isUndefined()) << qPrintable(at + "/" + it.key());
            } else {
                expectFragment(value, *it, at + "/" + it.key());
            }
        }
    } else if (expected.isArray()) {
        ASSERT_EQ(actual.toArray().size(), expected.toArray().size()) << qPrintable(at);
        for (int i = 0; i < expected.toArray().size(); ++i) {
            expectFragment(actual[i], expected[i], at + "/" + QString::number(i));
        }
    } else if (expected.isDouble() && actual.isDouble()) {
        const double e = expected.toDouble();
        EXPECT_NEAR(actual.toDouble(), e, 1e-6 * qMax(1.0, std::abs(e))) << qPrintable(at);
    } else {
        EXPECT_EQ(actual.toVariant(), expected.toVariant()) << qPrintable(at);
    }
}

// `document` (an object or its text) holds the object `fragment`; returns the document.
inline QJsonObject expectDocument(const QJsonObject& document, const QString& fragment)
{
    QJsonParseError error;
    const QJsonValue expected = QJsonDocument::fromJson(fragment.toUtf8(), &error).object();
    EXPECT_EQ(error.error, QJsonParseError::NoError) << qPrintable(fragment);
    expectFragment(document, expected, QString());
    return document;
}

inline QJsonObject expectDocument(const QString& text, const QString& fragment)
{
    return expectDocument(QJsonDocument::fromJson(text.toUtf8()).object(), fragment);
}
