#error "a public header must not need <libusb.h>"
