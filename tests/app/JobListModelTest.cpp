#include "app/JobListModel.h"
#include "AppTestSupport.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QtTest>

using namespace ostrand;
using namespace ostrand::test;

namespace {

QList<QUrl> files(std::initializer_list<const char*> names) {
    QList<QUrl> urls;
    for (const char* name : names) {
        urls << QueueFixture::file(QLatin1String(name));
    }
    return urls;
}

} // namespace

class JobListModelTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        m_fixture = std::make_unique<QueueFixture>();
        m_queue = &m_fixture->queue;
        m_model = std::make_unique<JobListModel>(*m_queue);
        m_tester = std::make_unique<QAbstractItemModelTester>(
            m_model.get(), QAbstractItemModelTester::FailureReportingMode::QtTest);
    }
    void cleanup() {
        m_tester.reset();
        m_model.reset();
        m_fixture.reset();
    }

    void addsAndRemovesRowsWithoutReset() {
        QSignalSpy inserted(m_model.get(), &QAbstractItemModel::rowsInserted);
        QSignalSpy removed(m_model.get(), &QAbstractItemModel::rowsRemoved);
        QSignalSpy reset(m_model.get(), &QAbstractItemModel::modelReset);

        m_queue->add(files({"a.wav", "notes.txt", "b.mp4", "c.m4a"}));
        QCOMPARE(m_model->rowCount(), 3);
        QCOMPARE(inserted.count(), 1);
        QCOMPARE(inserted.at(0).at(1).toInt(), 0);
        QCOMPARE(inserted.at(0).at(2).toInt(), 2);
        QCOMPARE(m_model->index(1).data().toString(), QStringLiteral("b.mp4"));

        // A persistent index (what a selection holds) follows its job.
        const QPersistentModelIndex last = m_model->index(2);
        m_queue->remove(m_model->jobAt(m_model->index(1)));
        QCOMPARE(removed.count(), 1);
        QCOMPARE(last.row(), 1);
        QCOMPARE(last.data().toString(), QStringLiteral("c.m4a"));

        m_queue->add(files({"d.wav"}));
        QCOMPARE(inserted.count(), 2);
        QCOMPARE(inserted.at(1).at(1).toInt(), 2);
        QCOMPARE(reset.count(), 0);
    }

    void clearFinishedRemovesOnlyTerminalRows() {
        m_queue->add(files({"a.wav", "b.wav", "c.wav", "d.wav", "e.wav"}));
        const auto jobs = m_queue->jobs();
        jobs[1]->setState(JobState::failed(QStringLiteral("broken")));
        jobs[2]->cancel();
        jobs[4]->setState(JobState::finished());
        const QPersistentModelIndex waiting = m_model->index(3);

        QSignalSpy removed(m_model.get(), &QAbstractItemModel::rowsRemoved);
        m_queue->clearFinished();
        QCOMPARE(removed.count(), 3);
        QCOMPARE(m_model->rowCount(), 2);
        QCOMPARE(m_model->jobAt(m_model->index(0)), jobs[0]);
        QCOMPARE(waiting.row(), 1);
    }

    void jobChangesReachTheirRow() {
        m_queue->add(files({"a.wav", "b.wav", "c.wav"}));
        QSignalSpy changed(m_model.get(), &QAbstractItemModel::dataChanged);
        m_queue->jobs().at(0)->setProgress(0.4);
        QVERIFY(!changed.isEmpty());
        QCOMPARE(changed.last().at(0).value<QModelIndex>().row(), 0);
        QCOMPARE(m_model->index(0).data(JobListModel::StatusTextRole).toString(),
                 QStringLiteral("Analyzing\u2026 40%"));

        // Once out of the list, a job that still runs reports into no row.
        LevelingJob* running = m_queue->jobs().at(0);
        m_queue->remove(running);
        changed.clear();
        running->setProgress(0.5);
        QVERIFY(changed.isEmpty());
        m_queue->jobs().at(1)->cancel();
        QVERIFY(!changed.isEmpty());
        for (const QList<QVariant>& change : std::as_const(changed)) {
            QCOMPARE(change.at(0).value<QModelIndex>().row(), 1);
        }
    }

private:
    std::unique_ptr<QueueFixture> m_fixture;
    JobQueue* m_queue = nullptr;
    std::unique_ptr<JobListModel> m_model;
    std::unique_ptr<QAbstractItemModelTester> m_tester;
};

QTEST_GUILESS_MAIN(JobListModelTest)
#include "JobListModelTest.moc"
