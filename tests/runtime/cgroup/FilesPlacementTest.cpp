#include "FilesHost.h"
