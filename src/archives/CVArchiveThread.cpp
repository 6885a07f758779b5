#include "archives/CVArchiveThread.h"

CVArchiveThread::~CVArchiveThread()
{
    if (!m_thread.joinable())
        return;
    if (isCurrent())
        m_thread.detach();
    else
        m_thread.join();
}

void CVArchiveThread::start(std::shared_ptr<CVArchive> archive, std::function<void()> work)
{
    m_thread = std::thread([held = std::move(archive), work = std::move(work)] { work(); });
}
