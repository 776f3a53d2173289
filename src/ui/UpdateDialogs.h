#pragma once

#include "UpdatePrompter.h"

#include <QCoreApplication>
#include <QPointer>

class QDialog;
class QProgressDialog;
class QWidget;

namespace ostrand {

// The updater's windows: the answer to a check, the offer of an update with
// its release notes, the download's progress, and the one question about
// automatic checks. Each is window-modal to the active window.
class UpdateDialogs : public UpdatePrompter {
    Q_DECLARE_TR_FUNCTIONS(UpdateDialogs)

public:
    UpdateDialogs() = default;
    ~UpdateDialogs() override;

    void upToDate(const QString& message) override;
    void failed(const QString& message) override;
    void offer(const AppcastItem& item, const QString& current,
               std::function<void(Choice)> decided) override;
    void askAutomaticChecks(std::function<void(bool)> decided) override;
    void downloadStarted(const AppcastItem& item, std::function<void()> cancel) override;
    void downloadProgress(qint64 received, qint64 total) override;
    void downloadEnded() override;
    void open(const QString& path) override;

    // The offer's window, for pictures and tests.
    static QDialog* makeOfferDialog(const AppcastItem& item, const QString& current,
                                    std::function<void(Choice)> decided, QWidget* parent);

private:
    QPointer<QProgressDialog> m_progress;
};

} // namespace ostrand
