// UART wire protocol: command codes and payloads, shared by the library, the simulator
// and the tests. Byte 0 of every request is the port.
//
//   UART_INIT             port u8, UART_CONFIG as it lies in memory (baud rate u32
//                         little-endian, four setting bytes)         -> empty answer
//   UART_WRITE            port u8, data                              -> empty answer once sent
//   UART_WRITE_ASYNC      port u8, data                              -> empty answer
//   UART_READ             port u8                                    -> the bytes buffered (0..n)
//   UART_CLEAR            port u8                                    -> empty answer
//   UART_WRITE_INTERVAL   port u8, gap ms u8 (low byte only), data   -> empty answer once sent
#pragma once

#include <cstdint>

namespace polybus {
namespace wire {

enum UartCommand : uint32_t {
    UART_INIT = 0x0A00,
    UART_WRITE = 0x0A01,
    UART_WRITE_ASYNC = 0x0A02,
    UART_READ = 0x0A03,
    UART_CLEAR = 0x0A04,
    UART_WRITE_INTERVAL = 0x0A05,
};

}  // namespace wire
}  // namespace polybus
