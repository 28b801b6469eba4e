// SPDX-License-Identifier: Apache-2.0

/// @file
/// The panel's window.
#pragma once

#include <QMainWindow>
#include <QPointer>

#include "charts.h"
#include "controller_list.h"
#include "gcode_line.h"
#include "job_list.h"

class QComboBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QStackedWidget;
class QTableView;

/// The window: it shows the models, and hands what is clicked to them. Nothing in it waits for a
/// controller.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    /// @throws JovuException when USB cannot be used.
    MainWindow();

    /// Ends what the controllers do while all that they notify still exists.
    ~MainWindow() override { controllers_.stop(); }

    /// The controller whose row is selected; null when there is none.
    Controller* selected() const;

    /// Pushes a job file to the selected controller.
    void push(const QString& path);

    const ControllerList& controllers() const { return controllers_; }
    const JobList& jobs() const { return jobs_; }

protected:
    /// Asks when a job is being sent. Otherwise what waits for a response ends, and the window
    /// closes within a second.
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* make_controllers();
    QWidget* make_jobs();
    QWidget* make_charts();
    QWidget* make_console();

    void controller_arrived(Controller* controller);
    void controller_leaving(Controller* controller);
    void choose_file();
    void ask_before_abort();
    void ask_before_close();
    void set_trace(bool enable);
    void send_gcode();
    void log(const QString& source, const QString& line);
    void refresh();
    void update_actions();
    const JobList::Job* selected_job() const;

    ControllerList controllers_;
    JobList jobs_;

    QTableView* controller_table_ = nullptr;
    QStackedWidget* controller_pages_ = nullptr;  // the table, or why it is empty
    QTableView* job_table_ = nullptr;
    QStackedWidget* job_pages_ = nullptr;
    QPushButton* push_ = nullptr;
    QPushButton* pause_ = nullptr;
    QPushButton* resume_ = nullptr;
    QPushButton* abort_ = nullptr;
    TemperatureChart* temperatures_ = nullptr;
    ServoChart* servo_chart_ = nullptr;
    QComboBox* servo_ = nullptr;
    QPushButton* trace_ = nullptr;
    QPointer<Controller> traced_;
    int traced_servo_ = 0;
    GcodeLine* gcode_ = nullptr;
    QPushButton* send_ = nullptr;
    QPushButton* stop_waiting_ = nullptr;
    QPlainTextEdit* log_ = nullptr;
    QLabel* summary_ = nullptr;
    bool closing_ = false;  // as soon as pushes and the trace have ended
    bool ending_trace_ = false;
};
