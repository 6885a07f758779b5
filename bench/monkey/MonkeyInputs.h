#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

class WindowDriver;

/// What the monkey drops: whole, broken, encrypted and hostile archives, sets of parts, folders and plain
/// files, made with the installed tools. One half is only ever used while results go elsewhere, and has to
/// stay as it is to the byte; of the other half, beside which results appear, every item has to stay.
class MonkeyInputs
{
public:
    explicit MonkeyInputs(const WindowDriver &driver);

    /// Paths that a person could drop together.
    const QList<QStringList> &safe() const { return m_safe; }
    const QList<QStringList> &beside() const { return m_beside; }
    QStringList passwords() const { return {QStringLiteral("secret"), QStringLiteral("wrong")}; }

    /// What is not as it was, in words.
    QStringList damage() const;
    /// Where hostile archives would have got out to.
    QStringList escaped() const;

private:
    QList<QStringList> make(const QString &folder);

    const WindowDriver &m_driver;
    QString m_tag; ///< in the names that lead outside
    QList<QStringList> m_safe;
    QList<QStringList> m_beside;
    QMap<QString, QByteArray> m_sums; ///< of every file that has to stay as it is
    QStringList m_items;              ///< that have to be there
};
