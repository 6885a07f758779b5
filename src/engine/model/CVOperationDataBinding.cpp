#include "engine/model/CVOperationDataBinding.h"

#include <QStringList>

#include <vector>

int CVOperationDataBinding::observe(const QString &key, Observer observer)
{
    const int id = m_nextObserver++;
    m_observers.emplace(id, Watch{key, std::move(observer)});
    return id;
}

void CVOperationDataBinding::didChange(const QString &key)
{
    QStringList changed{key};
    for (qsizetype i = 0; i < changed.size(); ++i) {
        for (const Dependency &dependency : dependencies()) {
            if (changed.at(i) == dependency.source && !changed.contains(dependency.derived))
                changed.append(dependency.derived);
        }
    }
    // Observers may remove themselves or others while they are told.
    for (const QString &told : std::as_const(changed)) {
        std::vector<int> ids;
        for (const auto &[id, watch] : m_observers) {
            if (watch.key == told)
                ids.push_back(id);
        }
        for (const int id : ids) {
            if (const auto found = m_observers.find(id); found != m_observers.end()) {
                const Observer observer = found->second.observer;
                observer(told);
            }
        }
    }
}
