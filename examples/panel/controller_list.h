// SPDX-License-Identifier: Apache-2.0

/// @file
/// The controllers that are attached.
#pragma once

#include <QAbstractTableModel>
#include <QColor>
#include <memory>
#include <unordered_map>
#include <vector>

#include "controller.h"

/// The attached controllers as rows of a table: first those that are connected, by their
/// addresses, then those that cannot be opened, with the reason. Owns the library's client and
/// everything that works with it. Belongs to the main thread.
class ControllerList : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column { kName, kAddress, kState, kTemperature, kColumns };

    /// @throws JovuException when USB cannot be used.
    ControllerList();

    /// As stop().
    ~ControllerList() override;

    /// Ends all exchanges and removes all controllers. Takes milliseconds, unless a controller is
    /// just taking a piece of data.
    void stop();

    /// @return the controller of a row; null for one that cannot be opened.
    Controller* at(const QModelIndex& index) const;

    /// @return -1 when it is not there any more.
    int row_of(const Controller* controller) const;

    const std::vector<std::unique_ptr<Controller>>& controllers() const { return controllers_; }

    /// The colour of a controller's curve, and of its mark in the table.
    static QColor colour(JovuDeviceAddress device);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

signals:
    void arrived(Controller* controller);
    /// Emitted before the controller's row is removed.
    void leaving(Controller* controller);
    /// A line for the log. @param source the controller's name, or empty.
    void reported(const QString& source, const QString& line);

private:
    void device_arrived(JovuDeviceAddress device);
    void device_left(JovuDeviceAddress device);
    void add(JovuDeviceAddress device);
    void remove(JovuDeviceAddress device);
    void update_refused(const QList<JovuDeviceInfo>& devices);
    Controller* find(JovuDeviceAddress device) const;
    QVariant text(const Controller& controller, int column) const;
    QVariant text(const JovuDeviceInfo& device, int column) const;

    DiagnosticLines diagnostic_lines_;  // outlives the client
    std::unique_ptr<PanelClient> client_;
    BusLister bus_lister_;
    std::vector<std::unique_ptr<Controller>> controllers_;
    std::vector<std::unique_ptr<Controller>> retired_;  // until their workers have ended
    std::unordered_map<JovuDeviceAddress, int> connections_;
    std::vector<JovuDeviceInfo> refused_;
};
