// Stream queries: a filter for one date, handles, free and sequence queries
// with their pages, and the description of one segment.
#include "qzfilesystem.h"
#include "qzfs_log.h"
#include "qzfs_manager.h"
