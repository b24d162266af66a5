/* Downloads a firmware image into an ECU's memory with UDS over CAN and verifies it by
 * reading it back: the Intel HEX file is read with the hexfile_ functions, every block
 * goes down with RequestDownload / TransferData / RequestTransferExit, and
 * ReadMemoryByAddress fetches it again for comparison. Channel 0 at 500 kbit/s, request
 * identifier 0x7E0, response 0x7E8, classic 8-byte frames.
 *
 *   build/polybus-sim --world examples/worlds/uds_download.toml -- build/uds-download [image.hex]
 *
 * Without a file name a small built-in image (two blocks at 0x08000000 and 0x08001000)
 * is used. Exits 0 when every block was downloaded and read back intact, 1 otherwise. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

#define MAX_BLOCKS 64
/* Bytes read back per ReadMemoryByAddress: the answer (0x63 and the data) stays below
 * 4096 bytes. */
#define READ_CHUNK 4000

static const char builtin_image[] =
    ":020000040800F2\n"
    ":100000000B30557A9FC4E90E33587DA2C7EC1136E8\n"
    ":100010005B80A5CAEF14395E83A8CDF2173C6186D8\n"
    ":10002000ABD0F51A3F6489AED3F81D42678CB1D6C8\n"
    ":10003000FB20456A8FB4D9FE23486D92B7DC0126B8\n"
    ":100040004B7095BADF04294E7398BDE2072C5176A8\n"
    ":100050009BC0E50A2F54799EC3E80D32577CA1C698\n"
    ":14100000A5A4A7A6A1A0A3A2ADACAFAEA9A8ABAAB5B4B7B68E\n"
    ":14101400B1B0B3B2BDBCBFBEB9B8BBBA85848786818083820A\n"
    ":00000001FF\n";

static unsigned char answer[4095];
static unsigned char request[4095];

/* One request and its answer; the answer's length, or -1 after printing why. */
static int uds(int dev, CAN_UDS_ADDR* addr, int length, unsigned char positive) {
    int rc = CAN_UDS_Request(dev, 0, addr, request, length);
    int n;
    if (rc == CAN_UDS_ERR_NOT_ACCEPTED) {
        printf("nobody acknowledged the request: is there an ECU on the bus?\n");
        return -1;
    }
    if (rc != 0) {
        printf("request 0x%02X failed: %d\n", request[0], rc);
        return -1;
    }
    n = CAN_UDS_Response(dev, 0, addr, answer, 2000);
    if (n < 0) {
        printf("request 0x%02X: %s (%d)\n", request[0], n == CAN_UDS_ERR_TIMEOUT ? "no answer" : "bad answer", n);
        return -1;
    }
    if (n >= 3 && answer[0] == 0x7F) {
        printf("request 0x%02X refused: negative response code 0x%02X\n", request[0], answer[2]);
        return -1;
    }
    if (n < 1 || answer[0] != positive) {
        printf("request 0x%02X: unexpected answer\n", request[0]);
        return -1;
    }
    return n;
}

static void put_be32(unsigned char* p, uint32_t v) {
    p[0] = (unsigned char)(v >> 24);
    p[1] = (unsigned char)(v >> 16);
    p[2] = (unsigned char)(v >> 8);
    p[3] = (unsigned char)v;
}

static int download_block(int dev, CAN_UDS_ADDR* addr, const HEX_DATA_BLOCK* block) {
    uint32_t pos, step, chunk;
    unsigned counter = 1;
    int n;
    request[0] = 0x34; /* RequestDownload: no compression, 4-byte size and address */
    request[1] = 0x00;
    request[2] = 0x44;
    put_be32(request + 3, block->StartAddr);
    put_be32(request + 7, block->DataLen);
    n = uds(dev, addr, 11, 0x74);
    if (n < 0) return 1;
    if (n < 4) {
        printf("short RequestDownload answer\n");
        return 1;
    }
    step = ((uint32_t)answer[2] << 8 | answer[3]) - 2; /* the ECU's block length less SID and counter */
    if (step < 1 || step > sizeof(request) - 2) step = sizeof(request) - 2;
    for (pos = 0; pos < block->DataLen; pos += step, ++counter) {
        chunk = block->DataLen - pos < step ? block->DataLen - pos : step;
        request[0] = 0x36; /* TransferData */
        request[1] = (unsigned char)counter;
        memcpy(request + 2, block->pData + pos, chunk);
        if (uds(dev, addr, (int)chunk + 2, 0x76) < 0) return 1;
    }
    request[0] = 0x37; /* RequestTransferExit */
    return uds(dev, addr, 1, 0x77) < 0;
}

static int verify_block(int dev, CAN_UDS_ADDR* addr, const HEX_DATA_BLOCK* block) {
    uint32_t pos, chunk;
    for (pos = 0; pos < block->DataLen; pos += chunk) {
        chunk = block->DataLen - pos < READ_CHUNK ? block->DataLen - pos : READ_CHUNK;
        request[0] = 0x23; /* ReadMemoryByAddress: 2-byte size, 4-byte address */
        request[1] = 0x24;
        put_be32(request + 2, block->StartAddr + pos);
        request[6] = (unsigned char)(chunk >> 8);
        request[7] = (unsigned char)chunk;
        if (uds(dev, addr, 8, 0x63) != (int)chunk + 1) return 1;
        if (memcmp(answer + 1, block->pData + pos, chunk) != 0) {
            printf("verification failed in the block at 0x%08X\n", (unsigned)block->StartAddr);
            return 1;
        }
    }
    return 0;
}

/* The image's blocks, from the file or the built-in text; the count, 0 on failure. */
static int load_image(const char* path, HEX_DATA_BLOCK* blocks) {
    unsigned char* text;
    long size;
    int length, count;
    FILE* f;
    if (path == NULL) {
        length = (int)strlen(builtin_image);
        text = (unsigned char*)malloc((size_t)length);
        if (text == NULL) return 0;
        memcpy(text, builtin_image, (size_t)length);
    } else {
        f = fopen(path, "rb");
        if (f == NULL || fseek(f, 0, SEEK_END) != 0 || (size = ftell(f)) < 0) {
            if (f != NULL) fclose(f);
            printf("cannot read %s\n", path);
            return 0;
        }
        fclose(f);
        text = (unsigned char*)malloc((size_t)size + 1);
        if (text == NULL) return 0;
        length = hexfile_load_file(path, text);
        if (length < 0) {
            free(text);
            printf("cannot read %s\n", path);
            return 0;
        }
    }
    count = hexfile_convert_ihx(text, length, blocks, MAX_BLOCKS, 1);
    free(text);
    if (count == 0) {
        hexfile_free_data(blocks, MAX_BLOCKS);
        printf("not a valid Intel HEX image\n");
    }
    return count;
}

static int download(int dev, const char* path) {
    HEX_DATA_BLOCK blocks[MAX_BLOCKS];
    CAN_INIT_CONFIG config;
    CAN_UDS_ADDR addr;
    int count, i, failed = 0;
    uint32_t total = 0;
    if (CAN_GetCANSpeedArg(dev, &config, 500000) != 0 || CAN_Init(dev, 0, &config) != 0) {
        printf("CAN set-up failed\n");
        return 1;
    }
    count = load_image(path, blocks);
    if (count == 0) return 1;
    memset(&addr, 0, sizeof(addr));
    addr.RequestId = 0x7E0;
    addr.ResponseId = 0x7E8;
    addr.FrameLen = 8;
    for (i = 0; i < count && !failed; ++i) {
        printf("block %d: %u bytes at 0x%08X\n", i, (unsigned)blocks[i].DataLen, (unsigned)blocks[i].StartAddr);
        failed = download_block(dev, &addr, &blocks[i]) || verify_block(dev, &addr, &blocks[i]);
        total += blocks[i].DataLen;
    }
    hexfile_free_data(blocks, count);
    if (failed) return 1;
    printf("downloaded and verified %u bytes in %d blocks\n", (unsigned)total, count);
    return 0;
}

int main(int argc, char** argv) {
    int handles[POLYBUS_MAX_DEVICES];
    int dev, result;
    if (USB_ScanDevice(handles) < 1) {
        printf("no adapter found\n");
        return 1;
    }
    dev = handles[0];
    if (!USB_OpenDevice(dev)) {
        printf("cannot open the adapter\n");
        return 1;
    }
    result = download(dev, argc > 1 ? argv[1] : NULL);
    USB_CloseDevice(dev);
    return result;
}
