// SPDX-License-Identifier: Apache-2.0
#include "job_list.h"

#include <QFileInfo>
#include <QPainter>
#include <QTextDocument>
#include <algorithm>

void JobList::attach(Controller* controller) {
    connect(controller, &Controller::changed, this,
            [this, controller] { read_report(controller); });
    connect(controller, &Controller::push_progressed, this,
            [this](int id, const JovuPushProgress& progress) {
                for (const auto& job : jobs_) {
                    if (job->id != id || progress.filler) continue;
                    job->percent = progress.percent;
                    changed(*job);
                }
            });
    connect(controller, &Controller::push_ended, this, &JobList::push_ended);
}

void JobList::detach(Controller* controller) {
    disconnect(controller, nullptr, this, nullptr);
    for (const auto& job : jobs_) {
        if (job->controller != controller) continue;
        if (job->phase != Phase::ended) end(*job, tr("unknown: disconnected"));
        job->controller = nullptr;
    }
}

JobList::Job& JobList::add(Controller* controller, const QString& file) {
    beginInsertRows({}, 0, 0);
    Job& job = **jobs_.insert(jobs_.begin(), std::make_unique<Job>());
    job.id = ++last_id_;
    job.controller = controller;
    job.controller_name = controller->name();
    job.file = file;
    endInsertRows();
    return job;
}

void JobList::push(Controller* controller, const QString& path) {
    Job& job = add(controller, QFileInfo(path).fileName());
    job.previous_job_id = controller->status().job_id;
    job.cancel = controller->push(job.id, path);
}

void JobList::push_ended(int id, JovuPushResult result, const QString& error) {
    for (const auto& job : jobs_) {
        if (job->id != id) continue;
        if (!error.isEmpty()) {
            end(*job, error);
        } else if (result == JovuPushResult::cancelled) {
            end(*job, tr("cancelled"));
        } else if (result == JovuPushResult::cut_short) {
            end(*job, tr("the file changed during the push"));
        } else {
            job->phase = Phase::sent;
            job->percent = 0;
            changed(*job);
        }
    }
}

void JobList::read_report(Controller* controller) {
    const JovuJobInterface::StatusMsg& status = controller->status();
    Job* job = find_current(controller);
    const bool printing = status.state == "printing";
    if (job == nullptr && (printing || status.state == "paused")) {
        // Another program has pushed it. A job that the panel has seen end is not followed again.
        const auto seen = [&](const auto& other) {
            return other->controller == controller && other->job_id == status.job_id;
        };
        if (std::any_of(jobs_.begin(), jobs_.end(), seen)) return;
        job = &add(controller, QString::fromStdString(status.file));
        job->phase = Phase::sent;
    }
    if (job == nullptr || job->phase < Phase::sent) return;
    // A report from before the push.
    if (!status.job_id.empty() && status.job_id == job->previous_job_id) return;
    job->job_id = status.job_id;
    if (printing || status.state == "paused") {
        job->phase = printing ? Phase::printing : Phase::paused;
        job->percent = status.progress;
        changed(*job);
    } else if (status.error != 0) {
        end(*job, tr("refused: error %1").arg(status.error));
    } else if (status.state == "finished") {
        job->percent = 100;
        end(*job, tr("finished"));
    } else if (job->phase != Phase::sent ||
               (status.state != "receiving" && status.state != "idle")) {
        end(*job, QString::fromStdString(status.state));
    }
}

void JobList::pause_or_resume(int id) {
    const Job* const job = find(id);
    if (job && job->controller) job->controller->pause_or_resume();
}

void JobList::abort(int id) {
    for (const auto& job : jobs_) {
        if (job->id != id || job->controller == nullptr) continue;
        if (job->phase == Phase::sending) {
            job->phase = Phase::cancelling;
            job->cancel->cancel();
            changed(*job);
        } else if (job->phase == Phase::printing || job->phase == Phase::paused) {
            job->controller->abort();
        }
    }
}

void JobList::cancel_pushes() {
    for (const auto& job : jobs_) {
        if (job->phase == Phase::sending) abort(job->id);
    }
}

void JobList::end(Job& job, const QString& outcome) {
    job.phase = Phase::ended;
    job.outcome = outcome;
    changed(job);
    emit reported(job.controller_name, tr("job %1: %2").arg(job.file, outcome));
}

void JobList::changed(const Job& job) {
    for (int row = 0; row < rowCount(); ++row) {
        if (jobs_[static_cast<std::size_t>(row)].get() != &job) continue;
        emit dataChanged(index(row, 0), index(row, kColumns - 1));
    }
}

const JobList::Job* JobList::find(int id) const {
    for (const auto& job : jobs_) {
        if (job->id == id) return job.get();
    }
    return nullptr;
}

const JobList::Job* JobList::at(const QModelIndex& index) const {
    const auto row = static_cast<std::size_t>(index.row());
    return index.isValid() && row < jobs_.size() ? jobs_[row].get() : nullptr;
}

JobList::Job* JobList::find_current(const Controller* controller) {
    for (const auto& job : jobs_) {
        if (job->controller == controller && job->phase != Phase::ended) return job.get();
    }
    return nullptr;
}

const JobList::Job* JobList::current(const Controller* controller) const {
    return const_cast<JobList*>(this)->find_current(controller);
}

bool JobList::is_sending() const {
    return std::any_of(jobs_.begin(), jobs_.end(), [](const auto& job) {
        return job->phase == Phase::sending || job->phase == Phase::cancelling;
    });
}

int JobList::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(jobs_.size());
}

int JobList::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : kColumns;
}

QVariant JobList::data(const QModelIndex& index, int role) const {
    const Job* const job = at(index);
    // Rich text, but for the names of files and controllers.
    if (job && role == Qt::ToolTipRole) return Qt::convertFromPlainText(index.data().toString());
    if (job == nullptr || role != Qt::DisplayRole) return {};
    switch (index.column()) {
        case kFile:
            return job->file;
        case kController:
            return job->controller_name;
        case kState:
            switch (job->phase) {
                case Phase::sending:
                    return tr("sending");
                case Phase::cancelling:
                    return tr("cancelling");
                case Phase::sent:
                    return tr("sent");
                case Phase::printing:
                    return tr("printing");
                case Phase::paused:
                    return tr("paused");
                case Phase::ended:
                    return job->outcome;
            }
            return {};
        case kProgress:
            return job->percent;
        default:
            return {};
    }
}

QVariant JobList::headerData(int section, Qt::Orientation orientation, int role) const {
    if (role != Qt::DisplayRole || orientation != Qt::Horizontal) return {};
    switch (section) {
        case kFile:
            return tr("Job");
        case kController:
            return tr("Controller");
        case kState:
            return tr("State");
        case kProgress:
            return tr("Progress");
        default:
            return {};
    }
}

void ProgressDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const {
    QStyledItemDelegate::paint(painter, option, {});  // the background
    const int percent = static_cast<int>(index.data().toDouble());
    const QRect bar = option.rect.adjusted(4, 5, -4, -5);
    QRect done = bar;
    done.setWidth(bar.width() * percent / 100);
    painter->fillRect(bar, "#e3e7ea");
    painter->fillRect(done, "#8fc1e8");
    painter->setPen(Qt::black);
    painter->drawText(bar, Qt::AlignCenter, tr("%1 %").arg(percent));
}
