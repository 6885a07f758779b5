#pragma once

#include "monkey/MonkeyInputs.h"
#include "monkey/MonkeyWatch.h"
#include "ui/support/WindowDriver.h"

#include <QMap>
#include <QString>

#include <functional>
#include <random>
#include <vector>

/// Uses the window at random: the same seed chooses the same actions, as far as jobs are equally fast.
class Monkey
{
public:
    Monkey(unsigned seed, std::chrono::seconds patience);

    /// False when something was wrong; it is told on standard error.
    bool run(std::chrono::seconds time);

private:
    struct Action
    {
        const char *name;
        int weight;
        std::function<void()> perform;
    };

    bool start();
    void perform(const Action &action);
    const Action &choose();
    bool isUsable() const;
    void breathe();
    /// Lets jobs end, by cancelling them where they would ask or take long, and compares.
    bool settle();
    bool fail(const QString &what);
    void report() const;

    void dropFiles();
    void pressKey();
    void clickTool();
    void clickControl();
    void triggerMenu();
    void typeWords();
    void clickRow();
    void cancelJob();
    void closeWindow();
    void openWindow();
    void changeSetting();
    void resizeWindow();

    int below(int bound) { return static_cast<int>(m_random() % static_cast<unsigned>(bound)); }
    template <typename List> const auto &anyOf(const List &list)
    {
        return list[static_cast<decltype(list.size())>(below(static_cast<int>(list.size())))];
    }

    std::mt19937 m_random;
    WindowDriver m_driver;
    MonkeyInputs m_inputs;
    QString m_log;
    MonkeyWatch m_watch;
    std::vector<Action> m_actions;
    bool m_resultsElsewhere = true;
    unsigned m_seed;
    int m_performed = 0;
    int m_settled = 0;
    int m_restarts = 0;
    QMap<QString, int> m_counts;
    QMap<QString, int> m_screens;
    struct Memory
    {
        int actions;
        qint64 heap;
        qint64 resident;
    };
    std::vector<Memory> m_memory;
};
