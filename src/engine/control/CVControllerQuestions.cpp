#include "engine/control/CVControllerQuestions.h"

#include "engine/control/CVNavigationDelegate.h"
#include "engine/control/CVOperationController.h"
#include "engine/control/CVScreens.h"

#include <algorithm>
#include <utility>

void CVControllerQuestions::setScreen(CVNavigationDelegate *navigation, CVAlertScreen *alert)
{
    m_navigation = navigation;
    m_alert = alert;
}

void CVControllerQuestions::alert(Key key, const CVAlert &alert, Ended ended)
{
    if (m_closed) {
        ended(0);
        return;
    }
    m_questions.push_back(
        {.key = key, .isAlert = true, .alert = alert, .ended = std::move(ended), .begin = {}});
    next();
}

void CVControllerQuestions::prompt(Key key, std::function<void()> begin)
{
    if (m_closed)
        return;
    m_questions.push_back(
        {.key = key, .isAlert = false, .alert = {}, .ended = {}, .begin = std::move(begin)});
    next();
}

void CVControllerQuestions::next()
{
    if (m_asking || m_closed || m_questions.empty())
        return;
    m_asking = true;
    const Question &question = m_questions.front();
    const Key key = question.key;
    if (!question.isAlert) {
        question.begin();
        return;
    }
    if (!m_alert || !m_navigation) {
        alertEnded(key, 0);
        return;
    }
    const CVAlert &alert = question.alert;
    m_alert->prepareAlert(alert.withCancelButton, alert.message, alert.informativeText,
                          alert.defaultButtonLabel);
    m_alert->run([this, controller = m_controller.weak_from_this(), key](int result) {
        if (const auto alive = controller.lock())
            alertEnded(key, result);
    });
    // It may be over already.
    if (m_navigation && m_asking && !m_questions.empty() && m_questions.front().key == key)
        m_navigation->controllerNeedsToLoadViewController(m_controller, *m_alert->screen(), false);
}

void CVControllerQuestions::alertEnded(Key key, int result)
{
    if (!m_asking || m_questions.empty() || m_questions.front().key != key)
        return;
    const Ended ended = std::move(m_questions.front().ended);
    m_questions.pop_front();
    m_asking = false;
    if (ended)
        ended(result);
    next();
}

void CVControllerQuestions::finished(Key key)
{
    if (!m_asking || m_questions.empty() || m_questions.front().key != key)
        return;
    m_questions.pop_front();
    m_asking = false;
    next();
}

void CVControllerQuestions::withdraw(Key key)
{
    const auto found = std::ranges::find(m_questions, key, &Question::key);
    if (found == m_questions.end())
        return;
    found->ended = nullptr;
    const bool isShown = m_asking && found == m_questions.begin();
    if (!isShown)
        m_questions.erase(found);
    else if (found->isAlert && m_alert)
        m_alert->stop();
    else
        finished(key);
}

void CVControllerQuestions::close()
{
    m_closed = true;
    m_navigation = nullptr;
    // Its end comes back here and takes it off.
    if (CVAlertScreen *const alert = std::exchange(m_alert, nullptr); alert && m_asking)
        alert->stop();
    m_asking = false;
    const auto left = std::exchange(m_questions, {});
    for (const Question &question : left) {
        if (question.ended)
            question.ended(0);
    }
}
