#pragma once

#include "engine/model/CVBatchPosition.h"

#include <QString>
#include <QWidget>

#include <chrono>
#include <optional>

class CVElidedLabel;
class CVFileWell;
class QLabel;
class QProgressBar;

/// What the progress screen shows; decides nothing. Main thread.
class CVProgressView final : public QWidget
{
    Q_OBJECT

public:
    explicit CVProgressView(QWidget *parent = nullptr);

    CVFileWell *fileWell() const { return m_well; }

    /// Plain text.
    void setJob(const QString &text);
    void setIcon(const QString &filename, bool multiple);
    void setIndeterminate();
    /// 0 to 1.
    void setShare(double share);
    /// Left and right below the bar; empty for nothing.
    void setAmount(const QString &text);
    void setTimeLeft(const QString &text);
    /// `share` is that of the whole batch. Nothing hides the row.
    void setBatch(const std::optional<CVBatchPosition> &position, double share, const QString &timeLeft);

    QSize minimumSizeHint() const override;

protected:
    void changeEvent(QEvent *event) override;

private:
    void applyStyle();

    CVFileWell *m_well = nullptr;
    CVElidedLabel *m_job = nullptr;
    QProgressBar *m_bar = nullptr;
    QLabel *m_amount = nullptr;
    QLabel *m_time = nullptr;
    QWidget *m_batch = nullptr;
    QLabel *m_batchText = nullptr;
    QLabel *m_batchTime = nullptr;
    QProgressBar *m_batchBar = nullptr;
    std::optional<std::chrono::steady_clock::time_point> m_timeSpoken;
};
