#pragma once

#include "ui/support/MainThreadWatch.h"
#include "ui/support/ManyEntries.h"

#include <QList>
#include <QString>

#include <functional>

class CVFileNodeModel;
class CVOutlineViewController;
class QAbstractItemView;
class WindowDriver;

/// What somebody does with a very large archive in the real window: drops it, looks around in it by every way
/// there is, searches, sorts, selects, goes back, drops it again and closes the window. Measures how long the
/// main thread did not answer meanwhile, and how much memory it took.
class LargeArchiveTour
{
public:
    struct Step
    {
        QString what;
        MainThreadWatch::Stall worst;
        double megabytes = 0; ///< in memory at its end
    };

    LargeArchiveTour(WindowDriver &driver, ManyEntries::Shape shape, int files);

    /// Makes the archive and starts the application; false with problem() when something does not work.
    bool run();
    const QString &problem() const { return m_problem; }

    const QList<Step> &steps() const { return m_steps; }
    Step longest() const;
    /// Of the process, since run() was called; MB are 10^6 bytes.
    double peakMegabytes() const { return m_peakMegabytes; }
    /// A few seconds after the archive was left, with the window still open.
    double leftMegabytes() const { return m_leftMegabytes; }
    /// All of it as lines.
    QString report() const;

private:
    bool check(bool holds, const QString &what);
    bool waitFor(const std::function<bool()> &holds);
    void step(const QString &what, const std::function<void()> &act);
    void breathe(int milliseconds = 2);
    bool drop();
    void lookAround(QAbstractItemView *files);
    void sortByColumns();
    void search(const QString &text);
    void selectAndLeaveIt(QAbstractItemView *files);
    void inList();
    void inGrid();
    void leave();
    void closeWhileRead();

    CVOutlineViewController &preview() const;
    CVFileNodeModel &model() const;

    WindowDriver &m_driver;
    ManyEntries::Shape m_shape;
    int m_files;
    MainThreadWatch *m_watch = nullptr;
    QString m_problem;
    QList<Step> m_steps;
    double m_peakMegabytes = 0;
    double m_leftMegabytes = 0;
};
