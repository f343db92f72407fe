// What every test of files begins with: a directory of its own, calls that fail on demand, small disks. For test files
// alone: it brings their names along.
#pragma once

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/Faults.h"
#include "support/Files.h"
#include "support/SmallDisk.h"

using faults::Call;
using faults::Failing;
using faults::ShortWrites;
using support::ModeOf;
using support::NamesIn;
using support::ReadText;
using support::SmallDisk;
using support::TempDir;
using support::WriteText;
using testing::ElementsAre;

class FilesFixture : public testing::Test {
protected:
    TempDir m_dir;
};
