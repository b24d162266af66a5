/* Polybus: the whole public interface. */
#ifndef POLYBUS_POLYBUS_H
#define POLYBUS_POLYBUS_H

#include "common.h"
#include "trace.h"
#include "usb_device.h"
#include "gpio.h"
#include "i2c.h"
#include "smbus.h"
#include "spi.h"
#include "uart.h"
#include "pwm.h"
#include "adc.h"
#include "dac.h"
#include "counter.h"
#include "can.h"
#include "canfd.h"
#include "lin.h"
#include "lin_uds.h"
#include "ldf.h"
#include "can_uds.h"
#include "hexfile.h"
#include "dbc.h"

#endif
