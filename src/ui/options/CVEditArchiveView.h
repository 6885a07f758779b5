#pragma once

#include <QWidget>

class CVFormatButtonBarView;
class CVVolumeRow;
class QCheckBox;
class QComboBox;
class QFormLayout;
class QLabel;
class QLineEdit;
class QScrollArea;

/// The controls of the create and the convert screen and their places; what they do is the screen's matter.
/// Main thread.
class CVEditArchiveView final : public QWidget
{
    Q_OBJECT

public:
    explicit CVEditArchiveView(QWidget *parent = nullptr);

    // What is shown of them. Rows that are not shown take no room.
    void setNameShown(bool shown);
    void setCompressionShown(bool shown);
    void setVolumesShown(bool shown);
    void setMultimediaShown(bool images, bool audio);
    void setEncryptShown(bool shown);
    void setPasswordsShown(bool shown);
    void setRarTextShown(bool shown);
    /// Plain text under the fields; empty takes none of the room. An error is in the colour of errors and is
    /// told to screen readers.
    void setHint(const QString &text, bool isError);
    /// Levels between those that have a word are shown as the nearest.
    void showLevel(int level);
    void setNoneOffered(bool offered);
    void setPasswordsReadable(bool readable);
    /// One line of plain text at the end: what will be made, and of what, which may be empty. Both are
    /// shortened in their middle where they do not fit.
    void setSummary(const QString &result, const QString &source);
    /// What all that is shown needs at that width. With less, the fields scroll.
    int heightForContents(int width) const;
    /// Tab goes through the controls from top to bottom.
    void orderTabs();

    CVFormatButtonBarView *formatBar;
    QLabel *description;
    QLineEdit *nameField;
    QLabel *nameSuffix;
    QComboBox *levelChooser;
    CVVolumeRow *volumes;
    QComboBox *imageChooser;
    QComboBox *audioChooser;
    QCheckBox *zipBox;
    QCheckBox *encryptBox;
    QLineEdit *passwordField;
    QLineEdit *confirmationField;
    QCheckBox *showPasswordBox;
    QLabel *rarText;

protected:
    void changeEvent(QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    QComboBox *addChooser(const QString &label, const QString &name);
    void addRow(const QString &label, QWidget *field, QWidget *buddy = nullptr);
    void layOutFields();
    QWidget *nameRow();
    QLineEdit *passwordLine(const QString &name);
    void colour();
    void elideSummary();

    QWidget *m_fields;
    QScrollArea *m_area;
    QFormLayout *m_form;
    QWidget *m_nameRow = nullptr;
    QLabel *m_mediaHint;
    QLabel *m_hint;
    QLabel *m_summary;
    QString m_result;
    QString m_source;
    bool m_hintIsError = false;
};
