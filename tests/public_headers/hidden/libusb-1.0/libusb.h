#error "a public header must not need <libusb-1.0/libusb.h>"
