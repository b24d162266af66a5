/* Programs a serial NOR flash on SPI port 0 from a firmware file (Intel HEX, S-record
 * or address/value text, read with the hexfile_ functions) and verifies it by
 * read-back.
 *
 *   spi-flash-program FILE [BASE]
 *
 * The image starts at the lowest address of the file, minus BASE (default 0); gaps are
 * filled with 0xFF. Sectors are erased as needed; a 3-byte-address flash with the
 * common command set is assumed (06, 02, 03, 0B, 20, C7, 9F, 05). Exits with status 1
 * unless every byte reads back as programmed.
 *
 * Against a simulated 2 MiB flash:
 *   build/polybus-sim --world examples/worlds/spi_flash.toml -- build/spi-flash-program examples/worlds/firmware.hex */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

#define MAX_BLOCKS 1024
#define SECTOR 4096u
#define CHUNK 65536u

static HEX_DATA_BLOCK blocks[MAX_BLOCKS];

static int ends_with(const char* s, const char* tail) {
    const size_t n = strlen(s), m = strlen(tail);
    return n >= m && strcmp(s + n - m, tail) == 0;
}

static int convert(const char* path, uint8_t* data, int len) {
    if (ends_with(path, ".hex") || ends_with(path, ".ihx")) return hexfile_convert_ihx(data, len, blocks, MAX_BLOCKS, 1);
    if (ends_with(path, ".s19") || ends_with(path, ".srec") || ends_with(path, ".mot"))
        return hexfile_convert_s19(data, len, blocks, MAX_BLOCKS, 1);
    return hexfile_convert_txt(data, len, blocks, MAX_BLOCKS, 1);
}

int main(int argc, char** argv) {
    SPI_CONFIG spi;
    SPI_FLASH_CONFIG flash;
    unsigned char id[3];
    uint8_t* file = NULL;
    uint8_t* image = NULL;
    uint8_t* back = NULL;
    long file_size;
    FILE* f;
    int handles[POLYBUS_MAX_DEVICES], dev = 0, count = 0, i, rc = 1;
    uint32_t lowest = 0xFFFFFFFFu, highest = 0, base = 0, size, at;
    if (argc < 2) {
        printf("usage: %s FILE [BASE]\n", argv[0]);
        return 2;
    }
    if (argc > 2) base = (uint32_t)strtoul(argv[2], NULL, 0);
    f = fopen(argv[1], "rb");
    if (!f || fseek(f, 0, SEEK_END) != 0 || (file_size = ftell(f)) <= 0) {
        printf("cannot read %s\n", argv[1]);
        if (f) fclose(f);
        return 1;
    }
    fclose(f);
    file = (uint8_t*)malloc((size_t)file_size + 1);
    if (!file || hexfile_load_file(argv[1], file) != file_size) goto done;
    file[file_size] = 0;
    count = convert(argv[1], file, (int)file_size);
    if (count <= 0) {
        printf("%s holds no data or is malformed\n", argv[1]);
        count = 0;
        goto done;
    }
    for (i = 0; i < count; ++i) {
        if (blocks[i].StartAddr < lowest) lowest = blocks[i].StartAddr;
        if (blocks[i].StartAddr + blocks[i].DataLen > highest) highest = blocks[i].StartAddr + blocks[i].DataLen;
    }
    size = highest - lowest;
    image = (uint8_t*)malloc(size);
    back = (uint8_t*)malloc(size);
    if (!image || !back || lowest < base) goto done;
    hexfile_convert_image(image, blocks, count, 1, 0xFF);

    if (USB_ScanDevice(handles) < 1 || !USB_OpenDevice(handles[0])) {
        printf("no adapter\n");
        goto done;
    }
    dev = handles[0];
    memset(&spi, 0, sizeof spi);
    spi.Master = 1;
    spi.ClockSpeedHz = 25000000;
    memset(&flash, 0, sizeof flash);
    flash.WriteEnableCmd = 0x06;
    flash.WriteDisableCmd = 0x04;
    flash.PageProgramCmd = 0x02;
    flash.ReadCmd = 0x03;
    flash.FastReadCmd = 0x0B;
    flash.SectorEraseCmd = 0x20;
    flash.ChipEraseCmd = 0xC7;
    flash.ReadIDCmd = 0x9F;
    flash.AddrBytes = 3;
    flash.DummyBytes = 1;
    flash.ReadStatusCmd = 0x05;
    flash.BusyMask = 0x01;
    flash.WelMask = 0x02;
    flash.PageSize = 256;
    flash.SectorSize = SECTOR;
    flash.IDLength = 3;
    if (SPI_Init(dev, 0, &spi) != 0 || SPI_FlashInit(dev, 0, 25000000, &flash) != 0 ||
        SPI_FlashReadID(dev, 0, id) != 0 || (id[0] == 0xFF && id[1] == 0xFF) || (id[0] == 0 && id[1] == 0)) {
        /* An undriven MISO line reads all ones (or all zeros with a pull-down). */
        printf("no flash answers on SPI port 0\n");
        goto done;
    }
    printf("flash %02X %02X %02X: %u bytes for 0x%X..0x%X\n", id[0], id[1], id[2], size, lowest - base,
           highest - base);
    at = lowest - base;
    {
        const uint32_t first = at / SECTOR, last = (at + size - 1) / SECTOR;
        if (SPI_FlashEraseSector(dev, 0, (int)first, (int)(last - first + 1), 20000) != 0) {
            printf("erase failed\n");
            goto done;
        }
    }
    for (i = 0; (uint32_t)i < size; i += (int)CHUNK) {
        const uint32_t n = size - (uint32_t)i < CHUNK ? size - (uint32_t)i : CHUNK;
        if (SPI_FlashWrite(dev, 0, (int)(at + (uint32_t)i), image + i, (int)n) != 0 ||
            SPI_FlashRead(dev, 0, (int)(at + (uint32_t)i), back + i, (int)n) != 0) {
            printf("program or read-back failed at 0x%X\n", at + (uint32_t)i);
            goto done;
        }
    }
    if (memcmp(image, back, size) != 0) {
        printf("verification failed\n");
        goto done;
    }
    printf("programmed and verified %u bytes\n", size);
    rc = 0;
done:
    if (count > 0) hexfile_free_data(blocks, count);
    free(file);
    free(image);
    free(back);
    if (dev) USB_CloseDevice(dev);
    return rc;
}
