#include "UpdateDialogs.h"

#include <QApplication>
#include <QDesktopServices>
#include <QDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QProgressDialog>
#include <QPushButton>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

namespace ostrand {

namespace {

QWidget* parentWindow() {
    return QApplication::activeWindow();
}

QMessageBox* message(QMessageBox::Icon icon, const QString& text) {
    auto* box = new QMessageBox(icon, UpdateDialogs::tr("Software Update"), text, QMessageBox::Ok,
                                parentWindow());
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowModality(Qt::WindowModal);
    return box;
}

} // namespace

UpdateDialogs::~UpdateDialogs() {
    delete m_progress;
}

void UpdateDialogs::upToDate(const QString& text) {
    QMessageBox* box = message(QMessageBox::Information, tr("You\u2019re up to date!"));
    box->setInformativeText(text);
    box->open();
}

void UpdateDialogs::failed(const QString& text) {
    QMessageBox* box = message(QMessageBox::Warning, tr("Update Error"));
    box->setInformativeText(text);
    box->open();
}

QDialog* UpdateDialogs::makeOfferDialog(const AppcastItem& item, const QString& current,
                                        std::function<void(Choice)> decided, QWidget* parent) {
    auto* dialog = new QDialog(parent);
    dialog->setWindowTitle(tr("Software Update"));
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->resize(520, 400);
    auto* layout = new QVBoxLayout(dialog);

    auto* heading = new QLabel(tr("<b>A new version of Ostrand is available!</b>"), dialog);
    auto* detail = new QLabel(
        tr("Ostrand %1 is now available\u2014you have %2. Would you like to install it now?")
            .arg(item.shortVersion.toHtmlEscaped(), current.toHtmlEscaped()),
        dialog);
    detail->setWordWrap(true);
    layout->addWidget(heading);
    layout->addWidget(detail);
    if (item.critical) {
        layout->addWidget(new QLabel(tr("This is an important update."), dialog));
    }

    auto* notesTitle = new QLabel(tr("<b>Release Notes:</b>"), dialog);
    auto* notes = new QTextBrowser(dialog);
    notes->setObjectName(QStringLiteral("releaseNotes"));
    // Links go to the browser; nothing in the notes is fetched.
    notes->setOpenLinks(false);
    QObject::connect(notes, &QTextBrowser::anchorClicked, notes, [](const QUrl& url) {
        if (url.scheme() == u"https") {
            QDesktopServices::openUrl(url);
        }
    });
    notes->setHtml(item.releaseNotes);
    layout->addWidget(notesTitle);
    layout->addWidget(notes, 1);

    // Skip at the far left, away from Install, which ends the row.
    auto* buttons = new QHBoxLayout;
    QPushButton* skip = nullptr;
    if (!item.critical) {
        skip = new QPushButton(tr("Skip This Version"), dialog);
        skip->setObjectName(QStringLiteral("skip"));
        buttons->addWidget(skip);
    }
    buttons->addStretch(1);
    auto* later = new QPushButton(tr("Remind Me Later"), dialog);
    later->setObjectName(QStringLiteral("later"));
    buttons->addWidget(later);
    auto* install = new QPushButton(tr("Install"), dialog);
    install->setObjectName(QStringLiteral("install"));
    install->setDefault(true);
    buttons->addWidget(install);
    layout->addLayout(buttons);

    // Exactly one answer, whichever way the dialog ends.
    auto answer = std::make_shared<std::optional<Choice>>();
    auto choose = [dialog, answer](Choice choice) {
        *answer = choice;
        dialog->done(choice == Choice::Install ? QDialog::Accepted : QDialog::Rejected);
    };
    if (skip) {
        QObject::connect(skip, &QPushButton::clicked, dialog, [choose] { choose(Choice::Skip); });
    }
    QObject::connect(later, &QPushButton::clicked, dialog, [choose] { choose(Choice::Later); });
    QObject::connect(install, &QPushButton::clicked, dialog, [choose] { choose(Choice::Install); });
    QObject::connect(dialog, &QDialog::finished, dialog, [answer, decided = std::move(decided)] {
        decided(answer->value_or(Choice::Later));
    });
    return dialog;
}

void UpdateDialogs::offer(const AppcastItem& item, const QString& current,
                          std::function<void(Choice)> decided) {
    makeOfferDialog(item, current, std::move(decided), parentWindow())->open();
}

void UpdateDialogs::askAutomaticChecks(std::function<void(bool)> decided) {
    QMessageBox* box = message(QMessageBox::Question, tr("Check for updates automatically?"));
    box->setInformativeText(
        tr("Should Ostrand look for a newer version once a day? You can change this in the "
           "settings at any time."));
    box->setStandardButtons(QMessageBox::NoButton);
    box->addButton(tr("Don\u2019t Check"), QMessageBox::RejectRole);
    QPushButton* yes = box->addButton(tr("Check Automatically"), QMessageBox::AcceptRole);
    box->setDefaultButton(yes);
    QObject::connect(box, &QMessageBox::finished, box, [box, yes, decided = std::move(decided)] {
        decided(box->clickedButton() == yes);
    });
    box->open();
}

void UpdateDialogs::downloadStarted(const AppcastItem& item, std::function<void()> cancel) {
    delete m_progress;
    m_progress = new QProgressDialog(tr("Downloading Ostrand %1\u2026").arg(item.shortVersion),
                                     tr("Cancel"), 0, 100, parentWindow());
    m_progress->setWindowTitle(tr("Software Update"));
    m_progress->setWindowModality(Qt::WindowModal);
    m_progress->setAutoClose(false);
    m_progress->setAutoReset(false);
    m_progress->setMinimumDuration(0);
    QObject::connect(m_progress, &QProgressDialog::canceled, m_progress,
                     [cancel = std::move(cancel)] { cancel(); });
    m_progress->show();
}

void UpdateDialogs::downloadProgress(qint64 received, qint64 total) {
    if (m_progress && total > 0) {
        m_progress->setValue(static_cast<int>(received * 100 / total));
    }
}

void UpdateDialogs::downloadEnded() {
    if (m_progress) {
        m_progress->disconnect();
        m_progress->deleteLater();
    }
}

void UpdateDialogs::open(const QString& path) {
    // The package installer is whatever the desktop opens a .deb with; if
    // there is none, the file manager shows where the package is.
    if (!QDesktopServices::openUrl(QUrl::fromLocalFile(path))) {
        QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
    }
}

} // namespace ostrand
