// Where a transfer's status lives: the status file of an owner and the
// section of one transfer direction of one process.  Internal to the library.
// Helpers that log take the site of their caller, so that every message names
// the module that asked.
#ifndef BANDWIDTH_STATUS_PATH_H
#define BANDWIDTH_STATUS_PATH_H

#include <stddef.h>
#include <sys/types.h>

#include "common/bandwidth_handles.h"
#include "veskbandwidth.h"
#include "vesk_log.h"

// Directory of every status file.
constexpr char kStatusDir[] = "/tmp/bandwidth/";

// Buffer sizes of a status file path and of a section name.
constexpr size_t kStatusPathSize = 4095;
constexpr size_t kStatusSectionSize = 512;

// The status file "/tmp/bandwidth/<owner type name>-<id>" into szPath (cbPath
// bytes): 0, or -1 (logged) when the owner type has no name.
int BandwidthStatusFilePath(int owner_type, unsigned int id, char *szPath, size_t cbPath, VeskSite site);

// The section "<pid>-<transfer type>" into szSection (cbSection bytes).
void BandwidthStatusSectionName(pid_t pid, int transfer_type, char *szSection, size_t cbSection);

#endif
