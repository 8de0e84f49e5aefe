// The calendar and the date lists: which days of a disk hold recordings.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
