// SPDX-License-Identifier: Apache-2.0

/// @file
/// A line of gcode, with the lines before it.
#pragma once

#include <QLineEdit>
#include <QStringList>

/// A line editor for gcode. The arrow keys recall the lines that have been sent.
class GcodeLine : public QLineEdit {
    Q_OBJECT

public:
    explicit GcodeLine(QWidget* parent = nullptr);

    /// Takes the line out of the editor, into the history. @return it; empty for a blank line.
    QString take();

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    /// Shows an earlier (-1) or a later (1) line.
    void recall(int step);

    QStringList history_;     // the latest last, without repetitions
    qsizetype position_ = 0;  // what is shown of the history; its size for the new line
    QString draft_;           // the new line, while an earlier one is shown
};
