/* Runs a LIN cluster from its LDF file: opens the file for LIN channel 0 as the
 * master, runs a schedule table a few times with LDF_ExeSchToBus and prints every
 * signal of the scheduled frames with LDF_GetSignalValueStr (physical values with
 * their units, logical values by name).
 *
 *   build/polybus-sim --world examples/worlds/ldf_cluster.toml -- build/ldf-schedule
 *   build/ldf-schedule [file.ldf [schedule [passes]]]
 *
 * Defaults: examples/worlds/cabin.ldf, the file's first schedule table, 3 passes.
 * Exits with 1 when the adapter, the file or the schedule is missing, or when a frame
 * some slave publishes gets no answer (no cluster on the channel). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <polybus/polybus.h>

/* Name and value texts are copied without a bound: room for the longest of the file. */
#define TEXT 1024

static char schedule[TEXT], frame[TEXT], signal[TEXT], value[TEXT], publisher[TEXT], master[TEXT];

/* Whether `name` is already among the first `count` frames of the schedule. */
static int seen_before(LDF_CODING* db, const char* sch, int count, const char* name) {
    char other[TEXT];
    int i;
    for (i = 0; i < count; ++i)
        if (LDF_GetSchFrameName(db, sch, i, other) == 0 && strcmp(other, name) == 0) return 1;
    return 0;
}

int main(int argc, char** argv) {
    int handles[POLYBUS_MAX_DEVICES];
    const char* path = argc > 1 ? argv[1] : "examples/worlds/cabin.ldf";
    int passes = argc > 3 ? atoi(argv[3]) : 3;
    LDF_CODING* db;
    int dev, pass, entries, i, k, signals, rc, failed = 0;

    if (USB_ScanDevice(handles) < 1) return printf("no adapter found\n"), 1;
    dev = handles[0];
    if (!USB_OpenDevice(dev)) return printf("cannot open the adapter\n"), 1;
    db = LDF_ParserFile(dev, 0, 1, path);
    if (db == NULL) return printf("cannot load %s for LIN channel 0\n", path), 1;
    if (LDF_GetMasterName(db, master) != 0) master[0] = '\0';
    printf("%s: LIN %d.%d at %d bit/s, %d frames, %d schedule tables, master %s\n", path,
           LDF_GetProtocolVersion(db) / 100, LDF_GetProtocolVersion(db) % 100 / 10, LDF_GetLINSpeed(db),
           LDF_GetFrameQuantity(db), LDF_GetSchQuantity(db), master);

    if (argc > 2) {
        strncpy(schedule, argv[2], sizeof(schedule) - 1);
    } else if (LDF_GetSchName(db, 0, schedule) != 0) {
        return printf("%s has no schedule table\n", path), 1;
    }
    entries = LDF_GetSchFrameQuantity(db, schedule);
    if (entries < 0) return printf("no schedule table '%s' in %s\n", schedule, path), 1;

    for (pass = 1; pass <= passes; ++pass) {
        rc = LDF_ExeSchToBus(db, schedule, 0);
        if (rc != 0) return printf("schedule '%s' failed: %d\n", schedule, rc), 1;
    }
    printf("schedule '%s': %d passes of %d entries\n", schedule, passes, entries);

    for (i = 0; i < entries; ++i) {
        if (LDF_GetSchFrameName(db, schedule, i, frame) != 0 || seen_before(db, schedule, i, frame)) continue;
        signals = LDF_GetFrameSignalQuantity(db, frame);
        if (signals < 0) continue; /* a command entry, not a frame */
        if (LDF_GetFramePublisher(db, frame, publisher) != 0) publisher[0] = '\0';
        /* A slave's frame once more on its own: a missing answer shows here. */
        if (strcmp(publisher, master) != 0 && (rc = LDF_ExeFrameToBus(db, frame, 0)) != 0) {
            printf("%s (from %s): no answer (%d)\n", frame, publisher, rc);
            failed = 1;
            continue;
        }
        printf("%s (from %s)\n", frame, publisher);
        for (k = 0; k < signals; ++k) {
            if (LDF_GetFrameSignalName(db, frame, k, signal) != 0) continue;
            if (LDF_GetSignalValueStr(db, frame, signal, value) != 0) strcpy(value, "?");
            printf("    %-24s %s\n", signal, value);
        }
    }
    USB_CloseDevice(dev);
    return failed;
}
