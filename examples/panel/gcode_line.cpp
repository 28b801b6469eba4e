// SPDX-License-Identifier: Apache-2.0
#include "gcode_line.h"

#include <QKeyEvent>

namespace {

constexpr qsizetype kMaxHistory = 200;

}  // namespace

GcodeLine::GcodeLine(QWidget* parent) : QLineEdit(parent) {
    setPlaceholderText(tr("Gcode, such as G28 or M104 S210; the arrow keys recall earlier lines"));
    setClearButtonEnabled(true);
}

QString GcodeLine::take() {
    QString line = text().trimmed();
    clear();
    if (!line.isEmpty()) {
        history_.removeAll(line);
        history_.append(line);
        if (history_.size() > kMaxHistory) history_.removeFirst();
    }
    position_ = history_.size();
    return line;
}

void GcodeLine::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Up) {
        recall(-1);
    } else if (event->key() == Qt::Key_Down) {
        recall(1);
    } else {
        QLineEdit::keyPressEvent(event);
    }
}

void GcodeLine::recall(int step) {
    const qsizetype wanted = position_ + step;
    if (wanted < 0 || wanted > history_.size()) return;
    if (position_ == history_.size()) draft_ = text();
    position_ = wanted;
    setText(position_ == history_.size() ? draft_ : history_.at(position_));
}
