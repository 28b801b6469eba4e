#include "jovu/usb_client.h"

JovuUsbClient::~JovuUsbClient() = default;
