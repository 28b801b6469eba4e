// SPDX-License-Identifier: Apache-2.0

/// @file
/// The print jobs that the panel knows.
#pragma once

#include <QAbstractTableModel>
#include <QStyledItemDelegate>
#include <memory>
#include <vector>

#include "controller.h"

/// The print jobs as rows of a table, the latest first: those that the panel has pushed, and those
/// that it found on a controller. A push has no acknowledgement: what becomes of it is read from
/// the controller's reports.
class JobList : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column { kFile, kController, kState, kProgress, kColumns };

    enum class Phase { sending, cancelling, sent, printing, paused, ended };

    struct Job {
        int id = 0;
        Controller* controller = nullptr;  ///< null once it is disconnected
        QString controller_name;
        QString file;
        Phase phase = Phase::sending;
        double percent = 0;  ///< of the push, then of the print
        QString outcome;     ///< once it has ended
        std::string job_id;  ///< the controller's, once known
        /// The controller's last job before this one.
        std::string previous_job_id;
        std::shared_ptr<JovuPushCancel> cancel;
    };

    using QAbstractTableModel::QAbstractTableModel;

    /// Follows the jobs of a controller until detach().
    void attach(Controller* controller);

    /// The controller is being removed: its jobs are not followed any more.
    void detach(Controller* controller);

    void push(Controller* controller, const QString& path);
    void pause_or_resume(int id);

    /// Cancels a push, aborts a print.
    void abort(int id);

    /// Cancels all pushes. Their controllers take filler in place of the rest of the job first.
    void cancel_pushes();

    /// @return null when no job has that id, or the row does not exist.
    const Job* find(int id) const;
    const Job* at(const QModelIndex& index) const;

    /// The controller's job that has not ended; null when there is none.
    const Job* current(const Controller* controller) const;

    bool is_sending() const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

signals:
    /// A line for the log.
    void reported(const QString& source, const QString& line);

private:
    Job& add(Controller* controller, const QString& file);
    Job* find_current(const Controller* controller);
    void read_report(Controller* controller);
    void push_ended(int id, JovuPushResult result, const QString& error);
    void end(Job& job, const QString& outcome);
    void changed(const Job& job);

    std::vector<std::unique_ptr<Job>> jobs_;  // the latest first
    int last_id_ = 0;
};

/// Draws the progress of a job as a bar.
class ProgressDelegate : public QStyledItemDelegate {
    Q_OBJECT

public:
    using QStyledItemDelegate::QStyledItemDelegate;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
};
