#pragma once

#include <QLatin1StringView>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <span>

class CVOperationDataBinding;
class CVEditArchiveOperationDataBinding;

/// Told of changes and asked for inputs, on the main thread.
class CVOperationDataBindingDelegate
{
public:
    virtual ~CVOperationDataBindingDelegate() = default;
    virtual void operationDataDidChangeArchiveType(CVEditArchiveOperationDataBinding &,
                                                   const QString & /*type*/)
    {}
    /// Path of the first file that the window works on.
    virtual QString operationDataPathToInputFile(CVOperationDataBinding &) { return {}; }
};

/// What an option screen edits and a job is made from.
///
/// Every value has a key, its function's name. Observers of a key are told after its value may have
/// changed, directly or through a value that it is derived from.
/// Thread: the main thread; a job may read a binding that no screen edits any more.
class CVOperationDataBinding
{
public:
    using Observer = std::function<void(const QString &key)>;

    CVOperationDataBinding() = default;
    virtual ~CVOperationDataBinding() = default;
    CVOperationDataBinding(const CVOperationDataBinding &) = delete;
    CVOperationDataBinding &operator=(const CVOperationDataBinding &) = delete;

    /// Borrowed weakly.
    std::shared_ptr<CVOperationDataBindingDelegate> delegate() const { return m_delegate.lock(); }
    void setDelegate(std::weak_ptr<CVOperationDataBindingDelegate> delegate)
    {
        m_delegate = std::move(delegate);
    }

    virtual void willLoadView() {}

    int observe(const QString &key, Observer observer);
    void removeObserver(int id) { m_observers.erase(id); }

protected:
    /// `derived` is recomputed when `source` changes.
    struct Dependency
    {
        QLatin1StringView derived;
        QLatin1StringView source;
    };
    virtual std::span<const Dependency> dependencies() const { return {}; }

    /// Tells the observers of the key and of everything derived from it, each once.
    void didChange(const QString &key);

    template <typename T> bool change(T &field, const T &value, const QString &key)
    {
        if (field == value)
            return false;
        field = value;
        didChange(key);
        return true;
    }

private:
    struct Watch
    {
        QString key;
        Observer observer;
    };
    std::weak_ptr<CVOperationDataBindingDelegate> m_delegate;
    std::map<int, Watch> m_observers;
    int m_nextObserver = 1;
};
