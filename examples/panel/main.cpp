// SPDX-License-Identifier: Apache-2.0

// A desktop panel for all attached controllers. To try it on simulated ones:
//
//     jovu-sim run --devices 3 -- panel
//
// How its parts work together:
//
//   panel_client.h       the library's callbacks become signals, queued to the main thread
//   controller_worker.h  makes the exchanges with one controller, on a thread of its own
//   controller.h         one controller on the main thread: its state, its orders to its worker
//   controller_list.h    the controllers as a table, and the owner of the client
//   job_list.h           the print jobs as a table
//   charts.h, gcode_line.h, main_window.h   what is seen
#include <QApplication>
#include <QMessageBox>
#include <memory>

#include "main_window.h"

int main(int argc, char** argv) {
    const QApplication application(argc, argv);
    try {
        MainWindow window;
        window.show();
        return QApplication::exec();
    } catch (const JovuException& error) {
        QMessageBox::critical(nullptr, QObject::tr("Controllers"), QString::fromUtf8(error.what()));
        return 1;
    }
}
