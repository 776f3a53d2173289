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

// A queue and its model under Qt's model tester.
struct Setup {
    QueueFixture fixture;
    JobQueue& queue = fixture.queue;
    JobListModel model{queue};
    QAbstractItemModelTester tester{&model, QAbstractItemModelTester::FailureReportingMode::QtTest};
};

} // namespace

class JobListModelTest : public QObject {
    Q_OBJECT

private slots:
    void init() { m = std::make_unique<Setup>(); }
    void cleanup() { m.reset(); }

    // Rows come and go without a reset; a persistent index (what a selection
    // holds) follows its job, and clearing takes only the terminal rows.
    void addsAndRemovesRowsWithoutReset() {
        QSignalSpy inserted(&m->model, &QAbstractItemModel::rowsInserted);
        QSignalSpy removed(&m->model, &QAbstractItemModel::rowsRemoved);
        QSignalSpy reset(&m->model, &QAbstractItemModel::modelReset);

        m->queue.add(files({"a.wav", "notes.txt", "b.mp4", "c.m4a"}));
        QCOMPARE(m->model.rowCount(), 3);
        QCOMPARE(inserted.count(), 1);
        QCOMPARE(inserted.at(0).at(1).toInt(), 0);
        QCOMPARE(inserted.at(0).at(2).toInt(), 2);
        QCOMPARE(m->model.index(1).data().toString(), QStringLiteral("b.mp4"));

        const QPersistentModelIndex last = m->model.index(2);
        m->queue.remove(m->model.jobAt(m->model.index(1)));
        QCOMPARE(removed.count(), 1);
        QCOMPARE(last.row(), 1);
        QCOMPARE(last.data().toString(), QStringLiteral("c.m4a"));

        m->queue.add(files({"d.wav", "e.wav", "f.wav"})); // a runs, the rest wait
        QCOMPARE(inserted.count(), 2);
        QCOMPARE(inserted.at(1).at(1).toInt(), 2);
        QCOMPARE(inserted.at(1).at(2).toInt(), 4);
        const auto jobs = m->queue.jobs();
        jobs[1]->setState(JobState::failed(QStringLiteral("broken")));
        jobs[2]->cancel();
        jobs[4]->setState(JobState::finished());
        const QPersistentModelIndex waiting = m->model.index(3);
        m->queue.clearFinished();
        QCOMPARE(removed.count(), 1 + 3);
        QCOMPARE(m->model.rowCount(), 2);
        QCOMPARE(m->model.jobAt(m->model.index(0)), jobs[0]);
        QCOMPARE(waiting.row(), 1);
        QCOMPARE(reset.count(), 0);
    }

    void jobChangesReachTheirRow() {
        m->queue.add(files({"a.wav", "b.wav", "c.wav"}));
        QSignalSpy changed(&m->model, &QAbstractItemModel::dataChanged);
        m->queue.jobs().at(0)->setProgress(0.4);
        QVERIFY(!changed.isEmpty());
        QCOMPARE(changed.last().at(0).value<QModelIndex>().row(), 0);
        QCOMPARE(m->model.index(0).data(JobListModel::StatusTextRole).toString(),
                 QStringLiteral("Analyzing\u2026 40%"));

        // Once out of the list, a job that still runs reports into no row.
        LevelingJob* running = m->queue.jobs().at(0);
        m->queue.remove(running);
        changed.clear();
        running->setProgress(0.5);
        QVERIFY(changed.isEmpty());
        m->queue.jobs().at(1)->cancel();
        QVERIFY(!changed.isEmpty());
        for (const QList<QVariant>& change : std::as_const(changed)) {
            QCOMPARE(change.at(0).value<QModelIndex>().row(), 1);
        }
    }

private:
    std::unique_ptr<Setup> m;
};

QTEST_GUILESS_MAIN(JobListModelTest)
#include "JobListModelTest.moc"
