/* Replays recorded LIN traffic: a comma-separated bus traffic export is decoded with
 * LIN_EX_DecodeListFile and its frames are sent, with their recorded gaps, through
 * LIN_EX_MasterSync on channel 0 at 19200 baud.
 *
 *   build/polybus-sim --world examples/worlds/lin_replay.toml -- build/lin-replay [recording.csv]
 *
 * Without an argument a short built-in recording is written to a temporary file; the
 * world places the slaves it talks to. Exits 0 when every frame went out and every read
 * frame was answered with a valid checksum, 1 otherwise. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

#define BATCH 16

static const char* sample =
    "Vehicle Spy 3 Bus Traffic File,Version,3\n"
    "Line,Abs Time(Sec),Rel Time,Status A,Status B,Status C,Tx,Description,Network,Arb ID,Remote,Xtd,"
    "B1,B2,B3,B4,B5,B6,B7,B8,Value,Trigger\n"
    "1,0.100,0,0,0,0,T,Door,LIN 1,10,,,01,02,03,04,,,,,,\n"
    "2,0.120,0,0,0,0,T,Light,LIN 1,11,,,FF,00,,,,,,,,\n"
    "3,0.150,0,0,0,0,F,Sensor,LIN 1,22,,,,,,,,,,,,\n"
    "4,0.200,0,0,0,0,T,Door,LIN 1,10,,,05,06,07,08,,,,,,\n";

static int write_sample(char* path) {
    FILE* f;
    strcpy(path, "/tmp/lin-replay-XXXXXX");
    {
        int fd = mkstemp(path);
        if (fd < 0) return 0;
        f = fdopen(fd, "w");
    }
    if (f == NULL) return 0;
    fputs(sample, f);
    fclose(f);
    return 1;
}

int main(int argc, char** argv) {
    int handles[POLYBUS_MAX_DEVICES];
    char path[64];
    unsigned char reads[1] = {0x22}; /* frames with identifier 0x22 are read from a slave */
    LIN_EX_MSG in[BATCH], out[BATCH];
    int dev, total, done = 0, failed = 0, i;
    const char* file = argc > 1 ? argv[1] : NULL;

    if (file == NULL) {
        if (!write_sample(path)) return printf("cannot write the sample recording\n"), 1;
        file = path;
    }
    total = LIN_EX_DecodeListFile((char*)file, LIN_EX_CHECK_ENHANCED, 19200, reads, 1, NULL, 0);
    if (argc <= 1) remove(path);
    if (total < 0) return printf("%s: cannot decode (status %d)\n", file, total), 1;
    printf("%s: %d frames\n", file, total);

    if (USB_ScanDevice(handles) < 1) return printf("no adapter found\n"), 1;
    dev = handles[0];
    if (!USB_OpenDevice(dev)) return printf("cannot open the adapter\n"), 1;
    if (LIN_EX_Init(dev, 0, 19200, 1) != 0) return printf("LIN init failed\n"), 1;

    while (done < total) {
        const int n = LIN_EX_GetListFileMsg(done, BATCH, in);
        const int got = LIN_EX_MasterSync(dev, 0, in, out, (unsigned)n);
        if (got < 0) return printf("LIN_EX_MasterSync failed: %d\n", got), 1;
        if (got == 0) return printf("LIN_EX_MasterSync sent nothing\n"), 1;
        for (i = 0; i < got; ++i) {
            if (out[i].CheckType == LIN_EX_CHECK_ERROR) ++failed;
            printf("  frame %d: id 0x%02X %s, %u data bytes, delay %u ms, verdict %u\n", done + i, in[i].PID & 0x3F,
                   in[i].MsgType == LIN_EX_MSG_MASTER_READ ? "read " : "write", (unsigned)(out[i].DataLen > 8 ? 0 : out[i].DataLen),
                   (unsigned)in[i].TimeStamp, (unsigned)out[i].CheckType);
        }
        done += got;
    }
    USB_CloseDevice(dev);
    if (failed > 0) return printf("%d frames without a valid answer (verdict %d)\n", failed, LIN_EX_CHECK_ERROR), 1;
    return 0;
}
