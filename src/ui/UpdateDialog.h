#pragma once

#include <QDialog>

class QLabel;
class QPushButton;
class QTextBrowser;

namespace corvi {

// The foreground update window: what was found (version, release notes) with Install, Later
// and Skip this version; then the progress and the outcome. Texts in Portuguese when `pt`.
class UpdateDialog : public QDialog {
    Q_OBJECT
  public:
    explicit UpdateDialog(bool pt, QWidget* parent = nullptr);

    void showChecking();
    // `notes`: plain text or simple HTML; links are shown, never followed.
    void showOffer(const QString& version, const QString& running, const QString& notes);
    // A step under way: no button, and closing the window waits for it.
    void showWorking(const QString& text);
    // An outcome, with OK.
    void showMessage(const QString& text);

    QString message() const;
    QTextBrowser* notes() const { return notes_; }
    QPushButton* installButton() const { return install_; }
    QPushButton* laterButton() const { return later_; }
    QPushButton* skipButton() const { return skip_; }
    QPushButton* okButton() const { return ok_; }

  signals:
    void installChosen();
    void skipChosen();

  public slots:
    void reject() override;

  private:
    void showButtons(bool offer, bool ok, bool later);

    const bool pt_;
    QLabel* message_;
    QTextBrowser* notes_;
    QPushButton* install_;
    QPushButton* later_;
    QPushButton* skip_;
    QPushButton* ok_;
    bool working_ = false;
};

}  // namespace corvi
