/// @file
/// Whether the sweep notices what it is there to notice.
#pragma once

namespace sweep {

/// Makes runs with a defect each, and runs whose calls must be counted.
/// @return 0 when every one was noticed, 1 otherwise.
int self_test();

}  // namespace sweep
