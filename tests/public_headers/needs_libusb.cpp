// SPDX-License-Identifier: Apache-2.0

// Stands for a public header that has begun to need libusb: this must not compile.
#include <libusb-1.0/libusb.h>
