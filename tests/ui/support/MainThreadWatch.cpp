#include "ui/support/MainThreadWatch.h"

#include "util/LXMainThread.h"

#include <QCoreApplication>

#include <algorithm>

MainThreadWatch::MainThreadWatch()
    : m_shared(std::make_shared<Shared>())
    , m_thread([this](const std::stop_token &stop) {
        std::unique_lock lock(m_mutex);
        while (!stop.stop_requested()) {
            if (!m_shared->isOnWay.exchange(true)) {
                m_shared->sent = Clock::now().time_since_epoch().count();
                LXMainThread::post([shared = m_shared] {
                    const Clock::rep took = Clock::now().time_since_epoch().count() - shared->sent;
                    shared->worst = std::max(shared->worst.load(), took);
                    shared->isOnWay = false;
                });
            }
            m_pause.wait_for(lock, stop, std::chrono::milliseconds(5), [] { return false; });
        }
    })
{}

MainThreadWatch::~MainThreadWatch()
{
    m_thread.request_stop();
    m_thread.join();
}

void MainThreadWatch::reset()
{
    QCoreApplication::processEvents();
    m_shared->worst = 0;
}

double MainThreadWatch::worstMilliseconds()
{
    QCoreApplication::processEvents();
    return std::chrono::duration<double, std::milli>(Clock::duration(m_shared->worst.load())).count();
}
