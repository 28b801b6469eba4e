// SPDX-License-Identifier: Apache-2.0

// Drives the panel by mouse and keyboard, on a simulated bus with four controllers. The steps build
// on one another. $JOVU_PANEL_PICTURE names a file for a picture of the window;
// docs/images/panel.png was taken with jovu-sim run --time-scale 0.15.
#include "main_window.h"

#include <QApplication>
#include <QComboBox>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <memory>

#include "support/sim_control.h"

namespace {

constexpr int kPatience = 90'000;  // ms, on a loaded machine

/// Measures how long the event loop does not come round to a timer of 5 ms.
class LoopWatch {
public:
    LoopWatch() {
        clock_.start();
        QObject::connect(&timer_, &QTimer::timeout,
                         [this] { longest_ = std::max(longest_, clock_.restart()); });
        timer_.start(5);
    }
    qint64 longest_ms() const { return longest_; }

private:
    QTimer timer_;
    QElapsedTimer clock_;
    qint64 longest_ = 0;
};

}  // namespace

class PanelTest : public QObject {
    Q_OBJECT

    bool failed_ = false;
    std::unique_ptr<MainWindow> window_;
    QTemporaryDir folder_;
    const QString job_ = folder_.filePath("bracket.gcode");
    const QString large_ = folder_.filePath("large.gcode");

    template <class Widget>
    Widget* find(const char* name) const {
        auto* const widget = window_->findChild<Widget*>(name);
        if (widget == nullptr) qFatal("no %s", name);
        return widget;
    }
    QString cell(const char* table, int row, int column) const {
        return find<QTableView>(table)->model()->index(row, column).data().toString();
    }
    QString log() const { return find<QPlainTextEdit>("log")->toPlainText(); }
    void click(const char* button) const {
        QTest::mouseClick(find<QPushButton>(button), Qt::LeftButton);
    }
    void select(int row) const {
        const auto* const table = find<QTableView>("controllers");
        QTest::mouseClick(table->viewport(), Qt::LeftButton, {},
                          table->visualRect(table->model()->index(row, 0)).center());
    }
    void send(const QString& line) const {
        auto* const gcode = find<GcodeLine>("gcode");
        gcode->clear();
        QTest::keyClicks(gcode, line);
        QTest::keyClick(gcode, Qt::Key_Return);
    }
    /// Answers the open question: yes is its first button, no the second one.
    bool answer(bool yes) const {
        for (const auto* const question : window_->findChildren<QMessageBox*>()) {
            if (!question->isVisible()) continue;  // one that has been answered
            QTest::mouseClick(question->buttons().at(yes ? 0 : 1), Qt::LeftButton);
            return true;
        }
        return false;
    }

private slots:
    void init() {
        if (failed_) QSKIP("An earlier step has failed.");
        QTest::failOnWarning(QRegularExpression("."));
    }
    void cleanup() { failed_ = failed_ || QTest::currentTestFailed(); }

    void controllers_appear_and_the_one_in_use_says_why() {
        test::sim("fault 1:5 claim EBUSY always");
        window_ = std::make_unique<MainWindow>();
        window_->show();
        QVERIFY(QTest::qWaitForWindowExposed(window_.get()));
        QTRY_COMPARE_WITH_TIMEOUT(find<QTableView>("controllers")->model()->rowCount(), 4,
                                  kPatience);
        QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", 3, ControllerList::kState),
                                  "in use by another program", kPatience);
        for (int row = 0; row < 3; ++row) {
            QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", row, ControllerList::kState), "idle",
                                      kPatience);
            QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", row, ControllerList::kName),
                                      QStringLiteral("JVS00100%1").arg(row + 2), kPatience);
        }
    }

    void gcode_is_sent_and_recalled() {
        select(0);
        send("M104 S120");
        QTRY_VERIFY_WITH_TIMEOUT(log().contains("M104 S120: status 0"), kPatience);
        send("M999");
        QTRY_VERIFY_WITH_TIMEOUT(log().contains("M999: status 2"), kPatience);
        auto* const gcode = find<GcodeLine>("gcode");
        QTest::keyClicks(gcode, "G28");
        const std::pair<Qt::Key, const char*> steps[] = {
            {Qt::Key_Up, "M999"},   {Qt::Key_Up, "M104 S120"}, {Qt::Key_Up, "M104 S120"},
            {Qt::Key_Down, "M999"}, {Qt::Key_Down, "G28"},     {Qt::Key_Down, "G28"},
        };
        for (const auto& [key, line] : steps) {
            QTest::keyClick(gcode, key);
            QCOMPARE(gcode->text(), line);
        }
    }

    void the_temperature_curve_grows() {
        Controller* const heated = window_->selected();
        QVERIFY(heated);
        const auto* const chart = window_->findChild<TemperatureChart*>();
        QTRY_VERIFY_WITH_TIMEOUT(
            chart->points(heated) >= 3 && heated->temperatures().last().y() > 100, kPatience);
        QVERIFY(heated->temperatures().first().y() < 60);
    }

    void a_servo_is_traced() {
        click("trace");
        const auto* const chart = window_->findChild<ServoChart*>();
        QTRY_VERIFY_WITH_TIMEOUT(chart->samples() > 1000, kPatience);
    }

    void a_job_is_paused_resumed_and_aborted() {
        QFile file(job_);
        QVERIFY(file.open(QFile::WriteOnly));
        file.write(QByteArray("G1 X10 Y10 E1\n").repeated(5000));
        file.close();
        select(1);
        window_->push(job_);
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "printing", kPatience);
        QVERIFY(!find<QPushButton>("push")->isEnabled());
        QVERIFY(!find<QPushButton>("resume")->isEnabled());
        click("pause");
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "paused", kPatience);
        click("resume");
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "printing", kPatience);
        click("abort");
        QVERIFY(answer(true));
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "aborted", kPatience);
        QTRY_VERIFY_WITH_TIMEOUT(find<QPushButton>("push")->isEnabled(), kPatience);
    }

    void a_push_is_cancelled() {
        QFile file(large_);
        QVERIFY(file.open(QFile::WriteOnly));
        QVERIFY(file.resize(8'000'000));
        select(0);
        window_->push(large_);
        QTRY_VERIFY_WITH_TIMEOUT(cell("jobs", 0, JobList::kProgress).toDouble() > 1, kPatience);
        window_->close();
        QVERIFY(answer(false));
        QVERIFY(window_->isVisible());
        QCOMPARE(cell("jobs", 0, JobList::kState), "sending");
        click("abort");
        QVERIFY(answer(true));
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "cancelled", kPatience);
        QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", 0, ControllerList::kState), "error 2",
                                  kPatience);
        select(1);
    }

    void a_mute_controller_holds_up_nobody() {
        Controller* const mute = window_->selected();
        QVERIFY(mute);
        test::sim("fault " + test::name(mute->device()) + " silent always");
        const LoopWatch watch;
        send("M114");
        QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", 1, ControllerList::kState),
                                  "does not respond", kPatience);
        select(2);
        window_->push(job_);
        send("M104 S90");
        QTRY_VERIFY_WITH_TIMEOUT(log().contains("M104 S90: status 0"), 5000);
        QTRY_COMPARE_WITH_TIMEOUT(cell("jobs", 0, JobList::kState), "printing", 5000);
        QTRY_VERIFY_WITH_TIMEOUT(cell("jobs", 0, JobList::kProgress).toDouble() > 40, kPatience);
        qInfo("longest gap of the event loop with a mute controller: %lld ms", watch.longest_ms());
        QVERIFY(watch.longest_ms() < 1000);
        QVERIFY(mute->is_running_gcode());
        window_->grab().save(qEnvironmentVariable("JOVU_PANEL_PICTURE", "panel.png"));

        select(1);
        click("stop_waiting");
        QTRY_VERIFY_WITH_TIMEOUT(log().contains("M114: Transport Error - Cancelled."), 2000);
    }

    void controllers_come_and_go() {
        auto* const table = find<QTableView>("controllers");
        test::sim("fault 1:5 clear");
        QTRY_COMPARE_WITH_TIMEOUT(cell("controllers", 3, ControllerList::kState), "idle",
                                  kPatience);
        const auto left = window_->controllers().controllers()[2]->device();
        select(2);
        test::sim("unplug " + test::name(left));
        QTRY_COMPARE_WITH_TIMEOUT(table->model()->rowCount(), 3, kPatience);
        QCOMPARE(cell("jobs", 0, JobList::kState), "unknown: disconnected");
        QVERIFY(!window_->selected());  // another machine would take what is typed for this one
        QVERIFY(!find<QPushButton>("send")->isEnabled());
        QCOMPARE(cell("controllers", 2, ControllerList::kAddress), "1:5");
    }

    void closing_ends_what_waits_and_the_trace() {
        const auto traced = window_->controllers().controllers()[0]->device();
        Controller* const mute = window_->controllers().controllers()[1].get();
        select(1);
        send("M114");
        QTest::qWait(100);
        QVERIFY(mute->is_running_gcode());
        QElapsedTimer clock;
        clock.start();
        window_->close();
        QTRY_VERIFY_WITH_TIMEOUT(!window_->isVisible(), kPatience);
        window_.reset();
        qInfo("closed with an exchange that waited in %lld ms", clock.elapsed());
        QVERIFY(clock.elapsed() < 3000);  // a second, where the machine is not loaded
        QCOMPARE(test::requests(traced, "servo_dc_trace_enable"), 2);
        // The checksum of the cancelled push.
        QCOMPARE(test::protocol_violations(traced), 1);
        QCOMPARE(test::protocol_violations({1, 3}), 0);
    }

    void closing_cancels_a_push_also_of_a_controller_that_is_unplugged() {
        for (const bool unplug : {false, true}) {
            window_ = std::make_unique<MainWindow>();
            window_->show();
            QTRY_VERIFY_WITH_TIMEOUT(window_->selected(), kPatience);
            const QString address = device_name(window_->selected()->device());
            window_->push(large_);
            QTRY_VERIFY_WITH_TIMEOUT(cell("jobs", 0, JobList::kProgress).toDouble() > 1, kPatience);
            window_->close();
            QVERIFY(answer(true));
            QVERIFY(window_->isVisible());
            if (unplug) test::sim("unplug " + address.toStdString());
            QTRY_VERIFY_WITH_TIMEOUT(!window_->isVisible(), kPatience);
            QVERIFY(window_->jobs().at(window_->jobs().index(0, 0))->phase ==
                    JobList::Phase::ended);
            window_.reset();
        }
    }
};

QTEST_MAIN(PanelTest)
#include "panel_test.moc"
