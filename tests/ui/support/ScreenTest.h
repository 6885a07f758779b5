#pragma once

#include "engine/model/CVSettings.h"
#include "ui/base/CVTheme.h"
#include "ui/support/ScreenStage.h"
#include "util/LXMainThread.h"

#include <QLabel>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

/// What tests of single screens share: a stage, and for each test a folder and settings of its own.
class ScreenTest : public QObject
{
    Q_OBJECT

protected:
    static QStringList labelTexts(const QWidget *view)
    {
        QStringList texts;
        for (const QLabel *label : view->findChildren<QLabel *>()) {
            if (!label->text().isEmpty() && label->isVisibleTo(view))
                texts.append(label->text());
        }
        return texts;
    }

    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ScreenStage> m_stage;

protected Q_SLOTS:
    void initTestCase()
    {
        LXMainThread::install();
        CVTheme::setReducedMotion(true);
        // One for all: the offscreen platform does not always activate a second one.
        m_stage = std::make_unique<ScreenStage>();
        QVERIFY(QTest::qWaitForWindowActive(&m_stage->window));
    }
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        CVSettings::setStore(std::make_shared<LXSettingsStore>(m_dir->filePath(QStringLiteral("settings"))));
        m_stage->requests.clear();
    }
    void cleanup()
    {
        m_stage->clear();
        CVSettings::setStore(nullptr);
    }
    void cleanupTestCase() { m_stage.reset(); }
};
