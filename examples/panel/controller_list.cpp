// SPDX-License-Identifier: Apache-2.0
#include "controller_list.h"

#include <QTextDocument>
#include <algorithm>
#include <tuple>

namespace {

/// Why a device cannot be opened; empty when it may be.
QString refusal(JovuDeviceState state) {
    switch (state) {
        case JovuDeviceState::not_permitted:
            return ControllerList::tr("no permission to open it");
        case JovuDeviceState::in_use:
            return ControllerList::tr("in use by another program");
        case JovuDeviceState::failed:
            return ControllerList::tr("cannot be opened");
        default:
            return {};
    }
}

}  // namespace

ControllerList::ControllerList() {
    const JovuScanPause until_wired;
    client_ = std::make_unique<PanelClient>(until_wired);
    connect(client_.get(), &PanelClient::device_arrived, this, &ControllerList::device_arrived);
    connect(client_.get(), &PanelClient::device_left, this, &ControllerList::device_left);
    connect(client_.get(), &PanelClient::device_refused, &bus_lister_, &BusLister::list);
    connect(client_.get(), &PanelClient::status_received, this,
            [this](JovuDeviceAddress device, const JovuJobInterface::StatusMsg& status,
                   Controller::Clock::time_point when) {
                if (Controller* const controller = find(device)) controller->receive(status, when);
            });
    connect(client_.get(), &PanelClient::line_printed, this,
            [this](JovuDeviceAddress device, const QString& line) {
                const Controller* const controller = find(device);
                emit reported(controller ? controller->name() : device_name(device), line);
            });
    connect(&diagnostic_lines_, &DiagnosticLines::reported, this, &ControllerList::reported);
    connect(&bus_lister_, &BusLister::listed, this, &ControllerList::update_refused);
}

ControllerList::~ControllerList() {
    stop();
}

void ControllerList::stop() {
    // No worker begins anything from here on, before the first one is waited for.
    for (const auto& controller : controllers_)
        controller->retire();
    client_->shutdown();
    while (!controllers_.empty())
        remove(controllers_.back()->device());
    retired_.clear();
}

// Notifications may come in any order when a device is replugged quickly. Each connection has one
// of either kind, so their difference tells whether a device is there.
void ControllerList::device_arrived(JovuDeviceAddress device) {
    const int connections = ++connections_[device];
    remove(device);
    if (connections > 0) add(device);
}

void ControllerList::device_left(JovuDeviceAddress device) {
    const int connections = --connections_[device];
    if (connections <= 0) remove(device);
    bus_lister_.list();
}

void ControllerList::add(JovuDeviceAddress device) {
    const auto before = [](const auto& a, JovuDeviceAddress b) {
        const JovuDeviceAddress address = a->device();
        return std::tie(address.bus, address.address) < std::tie(b.bus, b.address);
    };
    const auto place = std::lower_bound(controllers_.begin(), controllers_.end(), device, before);
    const int row = static_cast<int>(place - controllers_.begin());
    beginInsertRows({}, row, row);
    Controller* const controller =
        controllers_.insert(place, std::make_unique<Controller>(*client_, device))->get();
    endInsertRows();
    connect(controller, &Controller::changed, this, [this, controller] {
        const int changed = row_of(controller);
        if (changed >= 0) emit dataChanged(index(changed, 0), index(changed, kColumns - 1));
    });
    connect(controller, &Controller::failed, this,
            [this, controller](const QString& what, const QString& error) {
                emit reported(controller->name(), tr("%1: %2").arg(what, error));
            });
    emit arrived(controller);
}

void ControllerList::remove(JovuDeviceAddress device) {
    const int row = row_of(find(device));
    if (row < 0) return;
    Controller* const controller = controllers_[static_cast<std::size_t>(row)].get();
    emit leaving(controller);
    beginRemoveRows({}, row, row);
    retired_.push_back(std::move(controllers_[static_cast<std::size_t>(row)]));
    controllers_.erase(controllers_.begin() + row);
    endRemoveRows();
    // Queued, so that the controller is not destroyed in its own signal.
    const auto destroy = [this, controller] {
        const auto is_it = [controller](const auto& other) { return other.get() == controller; };
        retired_.erase(std::remove_if(retired_.begin(), retired_.end(), is_it), retired_.end());
    };
    connect(controller, &Controller::retired, this, destroy, Qt::QueuedConnection);
    controller->retire();
}

void ControllerList::update_refused(const QList<JovuDeviceInfo>& devices) {
    std::vector<JovuDeviceInfo> refused;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(refused),
                 [](const JovuDeviceInfo& device) { return !refusal(device.state).isEmpty(); });
    const auto same = [](const JovuDeviceInfo& a, const JovuDeviceInfo& b) {
        return a.address == b.address && a.state == b.state && a.serial == b.serial;
    };
    if (std::equal(refused.begin(), refused.end(), refused_.begin(), refused_.end(), same)) return;
    const int first = static_cast<int>(controllers_.size());
    if (!refused_.empty()) {
        beginRemoveRows({}, first, first + static_cast<int>(refused_.size()) - 1);
        refused_.clear();
        endRemoveRows();
    }
    if (!refused.empty()) {
        beginInsertRows({}, first, first + static_cast<int>(refused.size()) - 1);
        refused_ = std::move(refused);
        endInsertRows();
    }
}

Controller* ControllerList::find(JovuDeviceAddress device) const {
    for (const auto& controller : controllers_) {
        if (controller->device() == device) return controller.get();
    }
    return nullptr;
}

Controller* ControllerList::at(const QModelIndex& index) const {
    const auto row = static_cast<std::size_t>(index.row());
    return index.isValid() && row < controllers_.size() ? controllers_[row].get() : nullptr;
}

int ControllerList::row_of(const Controller* controller) const {
    for (std::size_t row = 0; row < controllers_.size(); ++row) {
        if (controllers_[row].get() == controller) return static_cast<int>(row);
    }
    return -1;
}

QColor ControllerList::colour(JovuDeviceAddress device) {
    static const QColor colours[] = {"#1f77b4", "#d95f02", "#2a9d4a",
                                     "#7b5ea7", "#b8860b", "#c2185b"};
    return colours[std::hash<JovuDeviceAddress>()(device) / 256 % std::size(colours)];
}

int ControllerList::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(controllers_.size() + refused_.size());
}

int ControllerList::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : kColumns;
}

QVariant ControllerList::text(const Controller& controller, int column) const {
    switch (column) {
        case kName:
            return controller.name();
        case kAddress:
            return device_name(controller.device());
        case kState:
            return controller.activity();
        case kTemperature:
            if (controller.temperatures().isEmpty()) return {};
            return tr("%1 °C").arg(controller.status().extruder_temperature, 0, 'f', 1);
        default:
            return {};
    }
}

QVariant ControllerList::text(const JovuDeviceInfo& device, int column) const {
    switch (column) {
        case kName:
            return device.serial.empty() ? tr("controller") : QString::fromStdString(device.serial);
        case kAddress:
            return device_name(device.address);
        case kState:
            return refusal(device.state);
        default:
            return {};
    }
}

QVariant ControllerList::data(const QModelIndex& index, int role) const {
    const Controller* const controller = at(index);
    switch (role) {
        case Qt::ToolTipRole: {  // rich text, but for a device's own strings
            const QString plain = index.data().toString();
            return plain.isEmpty() ? QVariant() : Qt::convertFromPlainText(plain);
        }
        case Qt::DisplayRole:
            if (controller) return text(*controller, index.column());
            return text(refused_[static_cast<std::size_t>(index.row()) - controllers_.size()],
                        index.column());
        case Qt::DecorationRole:
            if (controller && index.column() == kName) return colour(controller->device());
            return {};
        case Qt::ForegroundRole:
            if (!controller) return QColor("#7a7a7a");
            if (controller->is_responding()) return {};
            if (index.column() == kState) return QColor("#b00020");
            // What it reported before is old.
            return index.column() == kTemperature ? QColor("#7a7a7a") : QVariant();
        case Qt::TextAlignmentRole:
            if (index.column() == kTemperature) return int(Qt::AlignRight | Qt::AlignVCenter);
            return {};
        default:
            return {};
    }
}

QVariant ControllerList::headerData(int section, Qt::Orientation orientation, int role) const {
    if (role != Qt::DisplayRole || orientation != Qt::Horizontal) return {};
    switch (section) {
        case kName:
            return tr("Controller");
        case kAddress:
            return tr("Address");
        case kState:
            return tr("State");
        case kTemperature:
            return tr("Extruder");
        default:
            return {};
    }
}
