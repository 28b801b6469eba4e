// SPDX-License-Identifier: Apache-2.0
#include "main_window.h"

#include <QBoxLayout>
#include <QCloseEvent>
#include <QComboBox>
#include <QFileDialog>
#include <QFontDatabase>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTableView>
#include <QTime>
#include <QTimer>

#include "jovu/version.h"

namespace {

constexpr int kServos = 4;
constexpr int kMaxLogLines = 2000;
constexpr std::chrono::milliseconds kTracePeriod(50);
constexpr std::chrono::milliseconds kRefreshPeriod(500);
// How long closing waits for a controller to turn a trace off.
constexpr std::chrono::milliseconds kTraceEndLimit(500);

QTableView* make_table(QAbstractItemModel* model, const QString& name) {
    auto* const table = new QTableView;
    table->setObjectName(name);
    table->setModel(model);
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::SingleSelection);
    table->setShowGrid(false);
    table->setAlternatingRowColors(true);
    table->setTextElideMode(Qt::ElideMiddle);
    table->verticalHeader()->hide();
    table->verticalHeader()->setDefaultSectionSize(26);
    table->horizontalHeader()->setHighlightSections(false);
    table->horizontalHeader()->setDefaultAlignment(Qt::AlignLeft | Qt::AlignVCenter);
    return table;
}

/// The table, with a text that is shown while it is empty.
QStackedWidget* make_pages(QTableView* table, const QString& text) {
    auto* const label = new QLabel(text);
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    label->setStyleSheet("color: #7a7a7a");
    auto* const pages = new QStackedWidget;
    pages->addWidget(table);
    pages->addWidget(label);
    const auto choose = [pages, table] {
        pages->setCurrentIndex(table->model()->rowCount() == 0 ? 1 : 0);
    };
    QObject::connect(table->model(), &QAbstractItemModel::rowsInserted, pages, choose);
    QObject::connect(table->model(), &QAbstractItemModel::rowsRemoved, pages, choose);
    choose();
    return pages;
}

QPushButton* make_button(const QString& text, const QString& name, QBoxLayout* row) {
    auto* const button = new QPushButton(text);
    button->setObjectName(name);
    row->addWidget(button);
    return button;
}

}  // namespace

MainWindow::MainWindow() {
    setWindowTitle(tr("Controllers - libjovu %1").arg(jovu_version()));
    auto* const left = new QSplitter(Qt::Vertical);
    left->addWidget(make_controllers());
    left->addWidget(make_jobs());
    auto* const top = new QSplitter;
    top->addWidget(left);
    top->addWidget(make_charts());
    top->setSizes({540, 620});
    auto* const all = new QSplitter(Qt::Vertical);
    all->addWidget(top);
    all->addWidget(make_console());
    all->setSizes({580, 200});
    auto* const centre = new QWidget;
    (new QVBoxLayout(centre))->addWidget(all);
    setCentralWidget(centre);
    summary_ = new QLabel;
    summary_->setTextFormat(Qt::PlainText);  // a device chooses its strings
    statusBar()->addWidget(summary_);
    resize(1200, 820);

    connect(&controllers_, &ControllerList::arrived, this, &MainWindow::controller_arrived);
    connect(&controllers_, &ControllerList::leaving, this, &MainWindow::controller_leaving);
    connect(&controllers_, &ControllerList::reported, this, &MainWindow::log);
    connect(&jobs_, &JobList::reported, this, &MainWindow::log);
    for (const QAbstractItemModel* const model : {static_cast<QAbstractItemModel*>(&controllers_),
                                                  static_cast<QAbstractItemModel*>(&jobs_)}) {
        connect(model, &QAbstractItemModel::dataChanged, this, &MainWindow::update_actions);
        connect(model, &QAbstractItemModel::rowsInserted, this, &MainWindow::update_actions);
        connect(model, &QAbstractItemModel::rowsRemoved, this, &MainWindow::update_actions);
    }
    for (const QTableView* const table : {controller_table_, job_table_}) {
        connect(table->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
                &MainWindow::update_actions);
    }

    auto* const trace_timer = new QTimer(this);
    connect(trace_timer, &QTimer::timeout, servo_chart_, &ServoChart::refresh);
    trace_timer->start(kTracePeriod);
    auto* const timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, &MainWindow::refresh);
    timer->start(kRefreshPeriod);
    refresh();
    update_actions();
}

QWidget* MainWindow::make_controllers() {
    auto* const box = new QGroupBox(tr("Controllers"));
    // Connected before the table, which would select another machine in place of one that leaves:
    // that machine would get what was meant for this one.
    connect(&controllers_, &QAbstractItemModel::rowsAboutToBeRemoved, this,
            [this](const QModelIndex& /*parent*/, int first, int last) {
                const int row = controller_table_->currentIndex().row();
                if (row >= first && row <= last) controller_table_->selectionModel()->clear();
            });
    controller_table_ = make_table(&controllers_, "controllers");
    QHeaderView* const header = controller_table_->horizontalHeader();
    header->resizeSection(ControllerList::kName, 140);
    header->resizeSection(ControllerList::kAddress, 70);
    header->setSectionResizeMode(ControllerList::kState, QHeaderView::Stretch);
    header->resizeSection(ControllerList::kTemperature, 90);
    controller_pages_ =
        make_pages(controller_table_, tr("No controller is attached. Plug one in."));
    (new QVBoxLayout(box))->addWidget(controller_pages_);
    return box;
}

QWidget* MainWindow::make_jobs() {
    auto* const box = new QGroupBox(tr("Print jobs"));
    job_table_ = make_table(&jobs_, "jobs");
    job_table_->setItemDelegateForColumn(JobList::kProgress, new ProgressDelegate(job_table_));
    QHeaderView* const header = job_table_->horizontalHeader();
    header->setSectionResizeMode(JobList::kFile, QHeaderView::Stretch);
    header->resizeSection(JobList::kController, 110);
    header->resizeSection(JobList::kState, 130);
    header->resizeSection(JobList::kProgress, 110);
    job_pages_ = make_pages(job_table_, tr("No job yet. Select a controller and push one."));

    auto* const buttons = new QHBoxLayout;
    push_ = make_button(tr("Push job..."), "push", buttons);
    buttons->addStretch();
    pause_ = make_button(tr("Pause"), "pause", buttons);
    resume_ = make_button(tr("Resume"), "resume", buttons);
    abort_ = make_button(tr("Abort..."), "abort", buttons);
    connect(push_, &QPushButton::clicked, this, &MainWindow::choose_file);
    connect(abort_, &QPushButton::clicked, this, &MainWindow::ask_before_abort);
    for (QPushButton* const button : {pause_, resume_}) {
        connect(button, &QPushButton::clicked, this, [this] {
            if (const JobList::Job* const job = selected_job()) jobs_.pause_or_resume(job->id);
        });
    }
    auto* const layout = new QVBoxLayout(box);
    layout->addWidget(job_pages_);
    layout->addLayout(buttons);
    return box;
}

QWidget* MainWindow::make_charts() {
    temperatures_ = new TemperatureChart;
    servo_chart_ = new ServoChart;
    auto* const row = new QHBoxLayout;
    row->setContentsMargins(8, 0, 8, 0);
    row->addWidget(new QLabel(tr("Servo of the selected controller:")));
    servo_ = new QComboBox;
    servo_->setObjectName("servo");
    for (int servo = 0; servo < kServos; ++servo)
        servo_->addItem(QString::number(servo));
    row->addWidget(servo_);
    trace_ = make_button(tr("Trace"), "trace", row);
    trace_->setCheckable(true);
    row->addStretch();
    connect(trace_, &QPushButton::toggled, this, &MainWindow::set_trace);
    connect(servo_, &QComboBox::currentIndexChanged, this, [this] { trace_->setChecked(false); });

    auto* const box = new QWidget;
    auto* const layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(temperatures_, 1);
    layout->addLayout(row);
    layout->addWidget(servo_chart_, 1);
    return box;
}

QWidget* MainWindow::make_console() {
    gcode_ = new GcodeLine;
    gcode_->setObjectName("gcode");
    auto* const row = new QHBoxLayout;
    row->addWidget(gcode_, 1);
    send_ = make_button(tr("Send"), "send", row);
    stop_waiting_ = make_button(tr("Stop waiting"), "stop_waiting", row);
    connect(gcode_, &QLineEdit::returnPressed, this, &MainWindow::send_gcode);
    connect(send_, &QPushButton::clicked, this, &MainWindow::send_gcode);
    connect(stop_waiting_, &QPushButton::clicked, this, [this] {
        if (Controller* const controller = selected()) controller->stop_waiting();
    });

    log_ = new QPlainTextEdit;
    log_->setObjectName("log");
    log_->setReadOnly(true);
    log_->setMaximumBlockCount(kMaxLogLines);
    log_->setLineWrapMode(QPlainTextEdit::NoWrap);
    log_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
    log_->setPlaceholderText(tr("What controllers and library report."));

    auto* const box = new QGroupBox(tr("Gcode and log"));
    auto* const layout = new QVBoxLayout(box);
    layout->addLayout(row);
    layout->addWidget(log_);
    return box;
}

Controller* MainWindow::selected() const {
    return controllers_.at(controller_table_->currentIndex());
}

const JobList::Job* MainWindow::selected_job() const {
    return jobs_.at(job_table_->currentIndex());
}

void MainWindow::controller_arrived(Controller* controller) {
    log(controller->name(), tr("connected"));
    jobs_.attach(controller);
    temperatures_->attach(controller, ControllerList::colour(controller->device()));
    connect(controller, &Controller::gcode_ended, this,
            [this, controller](const QString& line, unsigned status, const QString& error) {
                log(controller->name(), error.isEmpty()
                                            ? tr("%1: status %2").arg(line, QString::number(status))
                                            : tr("%1: %2").arg(line, error));
            });
    connect(controller, &Controller::trace_began, this,
            [this, controller](int servo, double units_per_mm, double samples_per_second) {
                servo_chart_->begin(controller, servo, units_per_mm, samples_per_second);
            });
    // The only one is meant in any case.
    if (controllers_.controllers().size() == 1) {
        controller_table_->selectRow(controllers_.row_of(controller));
    }
}

void MainWindow::controller_leaving(Controller* controller) {
    log(controller->name(), tr("disconnected"));
    jobs_.detach(controller);
    temperatures_->detach(controller);
    servo_chart_->detach(controller);
    if (traced_ == controller) {
        traced_ = nullptr;
        trace_->setChecked(false);
    }
}

void MainWindow::choose_file() {
    const QPointer<Controller> meant = selected();
    const QString path = QFileDialog::getOpenFileName(this, tr("Push a print job"), QString(),
                                                      tr("Gcode (*.gcode *.g);;All files (*)"));
    // The dialog took its time: another controller may have taken the place of the one that was
    // meant.
    if (!path.isEmpty() && meant && selected() == meant) push(path);
}

void MainWindow::push(const QString& path) {
    Controller* const controller = selected();
    if (controller == nullptr || jobs_.current(controller)) return;
    jobs_.push(controller, path);
    job_table_->selectRow(0);
}

void MainWindow::ask_before_abort() {
    const JobList::Job* const job = selected_job();
    if (job == nullptr) return;
    auto* const question = new QMessageBox(
        QMessageBox::Question, tr("Abort the job?"),
        tr("Abort %1 on %2? It cannot be resumed.").arg(job->file, job->controller_name),
        QMessageBox::NoButton, this);
    question->setTextFormat(Qt::PlainText);
    question->addButton(tr("Abort job"), QMessageBox::AcceptRole);
    question->addButton(tr("Keep printing"), QMessageBox::RejectRole);
    question->setAttribute(Qt::WA_DeleteOnClose);
    // The job may have ended before the answer.
    connect(question, &QMessageBox::accepted, this, [this, id = job->id] { jobs_.abort(id); });
    question->open();
}

void MainWindow::set_trace(bool enable) {
    trace_->setText(enable ? tr("Stop trace") : tr("Trace"));
    if (traced_) traced_->trace(traced_servo_, false);
    traced_ = enable ? selected() : nullptr;
    traced_servo_ = servo_->currentIndex();
    if (traced_) traced_->trace(traced_servo_, true);
}

void MainWindow::send_gcode() {
    Controller* const controller = selected();
    if (controller == nullptr || controller->is_running_gcode()) return;
    const QString line = gcode_->take();
    if (line.isEmpty()) return;
    log(controller->name(), tr("> %1").arg(line));
    controller->run_gcode(line);
}

void MainWindow::log(const QString& source, const QString& line) {
    log_->appendPlainText(
        QStringLiteral("%1  %2  %3")
            .arg(QTime::currentTime().toString("HH:mm:ss"), source.leftJustified(9), line));
}

void MainWindow::refresh() {
    temperatures_->refresh();
    controller_table_->viewport()->update();  // a state may have become old
    const auto count = controllers_.controllers().size();
    QString text =
        count == 1 ? tr("1 controller connected") : tr("%1 controllers connected").arg(count);
    if (const Controller* const controller = selected()) {
        text = tr("%1, firmware %2 - ").arg(controller->name(), controller->version()) + text;
    }
    if (!JovuTransport::is_watching()) text = tr("USB has failed. Restart the panel.");
    summary_->setText(text);
}

void MainWindow::update_actions() {
    const Controller* const controller = selected();
    const JobList::Job* const job = selected_job();
    const bool attached = job && job->controller;
    const auto in = [&](JobList::Phase phase) { return attached && job->phase == phase; };
    using Phase = JobList::Phase;
    push_->setEnabled(controller && !jobs_.current(controller));
    pause_->setEnabled(in(Phase::printing));
    resume_->setEnabled(in(Phase::paused));
    abort_->setEnabled(in(Phase::sending) || in(Phase::printing) || in(Phase::paused));
    trace_->setEnabled(controller || traced_);
    send_->setEnabled(controller && !controller->is_running_gcode());
    stop_waiting_->setEnabled(controller && controller->is_running_gcode());
    temperatures_->emphasise(controller);
    // Queued: closing destroys the controllers, and the signal of one may have led here.
    const auto close_now = [this] {
        if (closing_ && !jobs_.is_sending()) close();
    };
    if (closing_) QMetaObject::invokeMethod(this, close_now, Qt::QueuedConnection);
}

void MainWindow::closeEvent(QCloseEvent* event) {
    event->ignore();
    if (jobs_.is_sending()) {
        // Once confirmed, the window closes when filler has replaced the rest of the job.
        if (!closing_) ask_before_close();
    } else if (traced_) {
        // The controller would go on tracing without the panel.
        closing_ = ending_trace_ = true;
        const auto go_on = [this] {
            ending_trace_ = false;
            close();
        };
        connect(traced_, &Controller::trace_ended, this, go_on, Qt::QueuedConnection);
        QTimer::singleShot(kTraceEndLimit, this, go_on);
        trace_->setChecked(false);
    } else if (!ending_trace_) {
        closing_ = false;
        hide();
        controllers_.stop();
        event->accept();
    }
}

void MainWindow::ask_before_close() {
    auto* const question = new QMessageBox(
        QMessageBox::Question, tr("Cancel the push?"),
        tr("A job is being sent. Cancel it and close the window? The controller then discards what "
           "it has received."),
        QMessageBox::NoButton, this);
    question->addButton(tr("Cancel push and close"), QMessageBox::AcceptRole);
    question->addButton(tr("Stay"), QMessageBox::RejectRole);
    question->setAttribute(Qt::WA_DeleteOnClose);
    connect(question, &QMessageBox::accepted, this, [this] {
        closing_ = true;
        jobs_.cancel_pushes();
        update_actions();
    });
    question->open();
}
