#include "qzfilesystem.h"
