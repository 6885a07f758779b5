#pragma once

#include "util/LXResult.h"

#include <QByteArrayList>
#include <QHash>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>
#include <memory>
#include <optional>

/// The person's settings: values under keys, kept in one INI file.
///
/// Values are booleans, integers, strings, byte arrays, and lists of strings or byte arrays. What a
/// read gives, in this order: an override of this run, the stored value, the registered default.
/// Only stored values are ever written.
///
/// Several processes may use one file. Every change is made under a lock file on what is in the file
/// at that moment, and replaces the file as a whole, so nobody loses what another wrote; a read looks
/// whether the file was replaced. The file is readable by its owner only. What a change is not about stays in
/// it as it was: comments, and what another version wrote.
///
/// A file that is there and cannot be read (no permission, a fault of the disk, a folder in its place, half
/// of it gone) is never replaced: changes are kept in memory until it can be read again.
///
/// Thread: any, at once. Observers are called on the thread that makes (or notices) the change, after
/// it, without any lock held. Changes by other processes are noticed at the next access here.
/// Errors: a value that cannot be written is kept in memory and tried again by flush(), which says why.
class LXSettingsStore
{
public:
    using Observer = std::function<void(const QString &key)>;
    using Check = std::function<bool(const QVariant &stored)>;

    /// Nothing is created before the first value is stored.
    explicit LXSettingsStore(const QString &filePath);
    ~LXSettingsStore();
    LXSettingsStore(const LXSettingsStore &) = delete;
    LXSettingsStore &operator=(const LXSettingsStore &) = delete;

    /// corvane/corvane.conf in the person's folder for configuration.
    static QString defaultFilePath();

    /// Added to those registered before.
    void registerDefaults(const QVariantHash &defaults);

    /// What a key may hold. A stored value that does not pass reads as the default, and stays in the file
    /// until another one is set. A check only computes.
    void registerChecks(const QHash<QString, Check> &checks);
    /// Keys whose stored values do not pass, as far as the file is known.
    QStringList wrongValues() const;

    QVariant value(const QString &key) const;
    /// Numbers other than 0 and the texts "true", "yes" and "1" count as true.
    bool boolean(const QString &key) const;
    /// 0 for what is no number.
    qint64 integer(const QString &key) const;
    QString string(const QString &key) const;
    QStringList stringList(const QString &key) const;
    QByteArrayList bytesList(const QString &key) const;
    /// In the file, whatever the defaults say.
    bool isStored(const QString &key) const;

    /// Written at once, unless the main thread is spared. On a key with an override only the override
    /// changes, for the same reason that the override exists: what is meant for this run must not outlive it.
    void setValue(const QString &key, const QVariant &value);
    void remove(const QString &key);
    /// Replaces the stored value by what `change` makes of it; no other thread or process comes between.
    /// `change` must not use the store. An invalid value removes the key.
    LXResult<void> update(const QString &key, const std::function<QVariant(const QVariant &stored)> &change);

    /// For this run only; an invalid value ends the override.
    void setOverride(const QString &key, const QVariant &value);

    /// For people: why the file could not be read, as of now. Nothing when it could, or where there is none.
    std::optional<LXError> readProblem() const;

    /// Writes what could not be written before.
    LXResult<void> flush();

    /// From now on the main thread waits for no disk: it reads what is known, looks for changes of others at
    /// the most five times a second, and its changes are written by another thread. flush() writes what is
    /// left at the end. For a program with a window.
    void spareMainThread();

    /// The answer is for removeObserver(); a call may still be under way when that returns.
    int observe(const QString &key, Observer observer);
    void removeObserver(int id);

private:
    struct Private;
    std::shared_ptr<Private> d;
};
