// The I2C transfers with their packet-error-code flag, for the SMBus family. Not
// exported: the public I2C functions send the flag as 0.
#pragma once

namespace polybus {

int IIC_WriteBytesHavePEC(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData, int WriteLen,
                          int TimeOutMs, unsigned char PEC);
int IIC_ReadBytesHavePEC(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pReadData, int ReadLen,
                         int TimeOutMs, unsigned char PEC);
int IIC_WriteReadBytesHavePEC(int DevHandle, int IICIndex, short SlaveAddr, unsigned char* pWriteData, int WriteLen,
                              unsigned char* pReadData, int ReadLen, int TimeOutMs, unsigned char PEC);

}  // namespace polybus
