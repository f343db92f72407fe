// The resource configuration file: keys and defaults, publication, the first application of every limit, bad input.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstddef>

#include "CoreFixture.h"
#include "ResourceConfig.h"
#include "support/Files.h"
#include "platform/zel/CgroupClient.h"

// The sampling class shares this layout.
static_assert(offsetof(ResourceConfig, maxCpu) == 0, "field order");
static_assert(offsetof(ResourceConfig, maxMemory) == 4, "field order");
static_assert(offsetof(ResourceConfig, maxFd) == 8, "field order");
static_assert(offsetof(ResourceConfig, auxValueA) == 12, "field order");
static_assert(offsetof(ResourceConfig, auxValueB) == 16, "field order");
static_assert(offsetof(ResourceConfig, maxReadIo) == 20, "field order");
static_assert(offsetof(ResourceConfig, maxWriteIo) == 24, "field order");
static_assert(offsetof(ResourceConfig, maxPidCheck) == 28, "field order");
static_assert(offsetof(ResourceConfig, cpuAll) == 32, "field order");

namespace {

std::string Show(const ResourceConfig& c) {
    return doubles::Format("cpu=%d mem=%d fd=%d a=%d b=%d rio=%d wio=%d pid=%d all=%d", c.maxCpu, c.maxMemory, c.maxFd,
                           c.auxValueA, c.auxValueB, c.maxReadIo, c.maxWriteIo, c.maxPidCheck, c.cpuAll);
}

const std::string kDefaults = "cpu=10 mem=200 fd=1024 a=5 b=0 rio=20480 wio=20480 pid=100 all=0";

}  // namespace

class ResourceConfigurationTest : public CoreFixture {
protected:
    /// Parses the text as a file; the journal is left to the test.
    bool Parse(const std::string& text) {
        m_path = WriteConfig(text);
        m_config = ResourceConfig();
        return pri().ParseMonitorConfig(m_path, m_config);
    }
    Lines Opened() const { return {"CFileUtil::IsFile(" + m_path + ")"}; }

    std::string m_path;
    ResourceConfig m_config;
};

TEST_F(ResourceConfigurationTest, ARecordStartsFromItsOwnDefaults) {
    EXPECT_EQ("cpu=0 mem=0 fd=0 a=5 b=0 rio=0 wio=0 pid=100 all=0", Show(ResourceConfig()));
}

// --- files that cannot be read ---

TEST_F(ResourceConfigurationTest, RefusesEmptyPathWithoutLooking) {
    EXPECT_FALSE(pri().ParseMonitorConfig("", m_config));
    EXPECT_EQ(Lines({}), journal());
}

TEST_F(ResourceConfigurationTest, RefusesWhatIsNoRegularFileSilently) {
    EXPECT_FALSE(pri().ParseMonitorConfig("/no/such/file", m_config));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(/no/such/file)"}), journal());
    EXPECT_EQ(Show(ResourceConfig()), Show(m_config));
}

TEST_F(ResourceConfigurationTest, SaysWhenTheFileCannotBeLoaded) {
    const support::TempDir temp;
    const std::string folder = temp.Path();
    const std::string missing = folder + "/missing", link = folder + "/link", pipe = folder + "/pipe",
                      huge = folder + "/huge";
    const std::string good = WriteConfig("max_cpu=20\n");
    ASSERT_EQ(0, symlink(good.c_str(), link.c_str()));
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int fd = open(huge.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    EXPECT_EQ(0, ftruncate(fd, 64L * 1024 * 1024 + 1)) << "sparse: no block is written";
    close(fd);
    for (const std::string& path : {missing, folder, link, pipe, huge}) {
        platform().files.alsoFiles.insert(path);
        EXPECT_FALSE(pri().ParseMonitorConfig(path, m_config)) << path;
        EXPECT_EQ(Lines({"CFileUtil::IsFile(" + path + ")", "W2 read resource monitor config fail"}), journal());
        EXPECT_EQ(Show(ResourceConfig()), Show(m_config));
    }
}

TEST_F(ResourceConfigurationTest, SaysWhenLoaderItselfRefusesTheFile) {
    // Regular to stat(2) and a page long, but it yields a few bytes only. Source: Documentation/filesystems/sysfs.rst.
    const std::string shorter = "/sys/devices/system/cpu/online";
    struct stat info {};
    if (lstat(shorter.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 4096) {
        GTEST_SKIP() << "needs " << shorter << " as a regular file of a page";
    }
    platform().files.alsoFiles.insert(shorter);
    EXPECT_FALSE(pri().ParseMonitorConfig(shorter, m_config));
    EXPECT_EQ(Lines({"CFileUtil::IsFile(" + shorter + ")", "W2 read resource monitor config fail"}), journal());
    EXPECT_EQ(Show(ResourceConfig()), Show(m_config));
}

TEST_F(ResourceConfigurationTest, LeavesNoDescriptorOpen) {
    const int before = dup(STDIN_FILENO);
    close(before);
    EXPECT_TRUE(Parse("max_cpu=20\n"));
    platform().files.alsoFiles.insert("/dev/null");
    EXPECT_FALSE(pri().ParseMonitorConfig("/dev/null", m_config));
    const int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(before, after);
}

TEST_F(ResourceConfigurationTest, NeedsOneDescriptorOnly) {
    const std::string path = WriteConfig("max_cpu=20\n");
    // Once without want: what a sanitizer looks up about a type for the first time takes descriptors of its own.
    ASSERT_TRUE(pri().ParseMonitorConfig(path, m_config));
    m_config.maxCpu = 0;
    const int next = dup(STDIN_FILENO);
    close(next);
    rlimit usual{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &usual));
    const rlimit one{static_cast<rlim_t>(next) + 1, usual.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &one));
    const bool parsed = pri().ParseMonitorConfig(path, m_config);
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &usual));
    EXPECT_TRUE(parsed);
    EXPECT_EQ(20, m_config.maxCpu);
}

TEST_F(ResourceConfigurationTest, ReadsThroughDescriptorZeroToo) {
    const std::string path = WriteConfig("max_cpu=20\n");
    const int kept = dup(STDIN_FILENO);
    ASSERT_GT(kept, STDIN_FILENO);
    close(STDIN_FILENO);
    const bool parsed = pri().ParseMonitorConfig(path, m_config);
    EXPECT_EQ(STDIN_FILENO, dup2(kept, STDIN_FILENO));
    close(kept);
    EXPECT_TRUE(parsed);
    EXPECT_EQ(20, m_config.maxCpu);
}

TEST_F(ResourceConfigurationTest, TakesAFileOfSixtyFourMegabytes) {
    const std::string path = WriteConfig("max_cpu=20\n");
    EXPECT_EQ(0, truncate(path.c_str(), 64L * 1024 * 1024));
    EXPECT_TRUE(pri().ParseMonitorConfig(path, m_config));
    EXPECT_EQ(20, m_config.maxCpu);
}

// A key that stands twice counts once, and a value does not go on in the next line.
TEST_F(ResourceConfigurationTest, ReadsOneLineForAKeyAndTheLastOfTwo) {
    EXPECT_TRUE(Parse("cgroup_groups=<<<END\nmain:50:1024\nEND\nmax_cpu=20\nmax_cpu=30\n"));
    EXPECT_EQ("<<<END", pri().m_cgroupGroupsSpec);
    EXPECT_EQ(30, m_config.maxCpu);
}

// --- keys ---

TEST_F(ResourceConfigurationTest, TakesEveryDefaultFromAnEmptyFile) {
    EXPECT_TRUE(Parse(""));
    EXPECT_EQ(Joined({Opened(),
                      Published().lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOff(0, 10),
                      LegacyMemOff()}),
              calls());
    EXPECT_EQ(kDefaults, Show(m_config));
    EXPECT_EQ("", pri().m_memLimitKernelRange);
    EXPECT_EQ("", pri().m_memLimitExcludeKernels);
    EXPECT_EQ("", pri().m_memLimitExcludeRange);
    EXPECT_EQ("", pri().m_cgroupGroupsSpec);
    EXPECT_EQ("", pri().m_cgroupComponentsSpec);
    EXPECT_EQ(10, pri().m_effectiveMaxCpu);
    EXPECT_EQ(200, pri().m_effectiveMaxMem);
}

TEST_F(ResourceConfigurationTest, ReadsEveryKeyAndPublishesInOrder) {
    EXPECT_TRUE(
        Parse("max_cpu = 21\nmax_memory = 301\nmax_fd = 512\nresource_limit_mode = 1\ncpu_all = 0\n"
              "max_rio = 31\nmax_wio = 32\nmax_pid_check = 33\nhash_mode = 34\n"
              "mem_limit_kernel_range = 3.10.0-1,6.99.99-1\n"
              "mem_limit_exclude_kernels = 4.19.1 4.19.2\nmem_limit_exclude_range = 5.0.0-1,5.1.0-1\n"
              "cgroup_groups = main:50:1024;guard:10:2048\ncgroup_components = A:main:main:1:2\n"));
    Published published;
    published.maxCpu = 21;
    published.maxMemory = 301;
    published.mode = 1;
    published.maxReadIo = 31;
    published.maxWriteIo = 32;
    published.maxPidCheck = 33;
    published.hashMode = 34;
    EXPECT_EQ(Joined({Opened(),
                      published.lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOn(1, 21, 19, 95),
                      LegacyMemOff()}),
              calls());
    EXPECT_EQ("cpu=21 mem=301 fd=512 a=5 b=0 rio=31 wio=32 pid=33 all=0", Show(m_config));
    EXPECT_EQ("3.10.0-1,6.99.99-1", pri().m_memLimitKernelRange);
    EXPECT_EQ("4.19.1 4.19.2", pri().m_memLimitExcludeKernels);
    EXPECT_EQ("5.0.0-1,5.1.0-1", pri().m_memLimitExcludeRange);
    EXPECT_EQ("main:50:1024;guard:10:2048", pri().m_cgroupGroupsSpec);
    EXPECT_EQ("A:main:main:1:2", pri().m_cgroupComponentsSpec);
}

TEST_F(ResourceConfigurationTest, LeavesAloneWhatItDoesNotPublish) {
    conf().maxFdCount.Set(77);
    conf().cpuLimitEnabled.Set(78);
    conf().availableMemThreshold.Set(79);
    conf().osAbnormalReportInterval.Set(80);
    conf().osAbnormalSwitch.Set(81);
    EXPECT_TRUE(Parse("max_fd=5\n"));
    EXPECT_EQ(77, conf().maxFdCount.Get());
    EXPECT_EQ(78, conf().cpuLimitEnabled.Get());
    EXPECT_EQ(79, conf().availableMemThreshold.Get());
    EXPECT_EQ(80, conf().osAbnormalReportInterval.Get());
    EXPECT_EQ(81, conf().osAbnormalSwitch.Get());
    EXPECT_EQ(5, m_config.maxFd);
}

TEST_F(ResourceConfigurationTest, ReadsTheFileAsOperatorsWriteIt) {
    struct Case {
        const char* what;
        std::string text;
        int maxCpu;
    };
    const Case cases[] = {
        {"upper case key", "MAX_CPU=20\n", 20},
        {"mixed case key", "Max_Cpu=20\n", 20},
        {"blanks around", "  max_cpu \t=  20  \n", 20},
        {"no line end", "max_cpu=20", 20},
        {"CRLF", "max_cpu=20\r\nmax_memory=9\r\n", 20},
        {"byte order mark", "\xEF\xBB\xBFmax_cpu=20\n", 20},
        {"comment lines", "; first\n# second\nmax_cpu=20\n", 20},
        {"the last of two", "max_cpu=20\nmax_cpu=30\n", 30},
        {"the last of two spellings", "max_cpu=20\nMAX_CPU=30\n", 30},
        {"a comment behind a value belongs to it", "max_cpu=20 ; percent\n", 20},
        {"quotes stay", "max_cpu=\"20\"\n", 0},
        {"present but empty", "max_cpu=\n", 0},
        {"no equals sign", "max_cpu\n", 10},
        {"garbage", "max_cpu=many\n", 0},
        {"number and garbage", "max_cpu=20x\n", 20},
        {"hexadecimal is not read", "max_cpu=0x20\n", 0},
        {"leading zero is decimal", "max_cpu=020\n", 20},
        {"negative", "max_cpu=-20\n", -20},
        {"fraction", "max_cpu=20.9\n", 20},
        {"beyond 32 bits", "max_cpu=99999999999\n", INT_MAX},
        {"beyond 64 bits", "max_cpu=99999999999999999999999\n", INT_MAX},
        {"far below zero", "max_cpu=-99999999999\n", INT_MIN},
        {"inside a section", "[limits]\nmax_cpu=20\n", 10},
        {"before a section", "max_cpu=20\n[limits]\nmax_cpu=30\n", 20},
        {"after an empty header", "[]\nmax_cpu=20\n", 20},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_TRUE(Parse(c.text));
        EXPECT_EQ(c.maxCpu, conf().maxCpu.Get());
        EXPECT_EQ(c.maxCpu, conf().groupMaxCpu.Get());
        EXPECT_EQ(std::max(c.maxCpu, 0), m_config.maxCpu);
    }
}

TEST_F(ResourceConfigurationTest, StoresTextsRaw) {
    EXPECT_TRUE(
        Parse("cgroup_groups=\" a ; b \" # c\nmem_limit_kernel_range=not,a range;;\n"
              "mem_limit_exclude_kernels=100%s%n\nCGROUP_COMPONENTS=x\n"));
    EXPECT_EQ("\" a ; b \" # c", pri().m_cgroupGroupsSpec);
    EXPECT_EQ("not,a range;;", pri().m_memLimitKernelRange);
    EXPECT_EQ("100%s%n", pri().m_memLimitExcludeKernels);
    EXPECT_EQ("x", pri().m_cgroupComponentsSpec);
}

TEST_F(ResourceConfigurationTest, ReplacesTheTextsOfAnEarlierFile) {
    EXPECT_TRUE(Parse("cgroup_groups=a\nmem_limit_kernel_range=b\n"));
    EXPECT_TRUE(Parse(""));
    EXPECT_EQ("", pri().m_cgroupGroupsSpec);
    EXPECT_EQ("", pri().m_memLimitKernelRange);
}

TEST_F(ResourceConfigurationTest, TakesNonZeroCpuAllForTrue) {
    struct Case {
        const char* text;
        bool all;
    };
    for (const Case& c : {Case{"cpu_all=0", false}, Case{"cpu_all=1", true}, Case{"cpu_all=7", true},
                          Case{"cpu_all=-1", true}, Case{"cpu_all=yes", false}}) {
        SCOPED_TRACE(c.text);
        EXPECT_TRUE(Parse(c.text));
        EXPECT_EQ(c.all, m_config.cpuAll);
        EXPECT_EQ(c.all ? 1 : 0, conf().cpuAll.Get());
        EXPECT_EQ(c.all, platform().base.solaris);
    }
}

// --- hostile files ---

TEST_F(ResourceConfigurationTest, TakesBinaryRubbishForAnEmptyFile) {
    std::string rubbish;
    unsigned int state = 12345;
    for (int i = 0; i < 100000; ++i) {
        state = state * 1103515245u + 12345u;
        rubbish.push_back(static_cast<char>(state >> 16));
    }
    EXPECT_TRUE(Parse(rubbish));
    EXPECT_EQ(kDefaults, Show(m_config));
    EXPECT_TRUE(Parse(std::string(1000, '\0')));
    EXPECT_EQ(kDefaults, Show(m_config));
}

TEST_F(ResourceConfigurationTest, ReadsAValueBehindTenMegabytes) {
    const std::string comment = "# " + std::string(77, 'x') + "\n";
    std::string text;
    while (text.size() < 10u * 1024 * 1024) text += comment;
    EXPECT_TRUE(Parse(text + "max_cpu=17\n"));
    EXPECT_EQ(17, m_config.maxCpu);
}

TEST_F(ResourceConfigurationTest, SurvivesALineOfAMegabyte) {
    EXPECT_TRUE(Parse("max_cpu=" + std::string(1 << 20, '9') + "\ncgroup_groups=" + std::string(1 << 20, 'g') +
                      "\nmax_memory=55\n"));
    EXPECT_EQ(INT_MAX, m_config.maxCpu);
    EXPECT_EQ(55, m_config.maxMemory);
    EXPECT_EQ(static_cast<size_t>(1 << 20), pri().m_cgroupGroupsSpec.size());
}

// --- no online configuration ---

TEST_F(ResourceConfigurationTest, KeepsItsValuesWithoutOnlineConfig) {
    doubles::ForgetOnlineConf();
    EXPECT_FALSE(
        Parse("max_cpu=20\nmax_memory=30\nresource_limit_mode=13\ncpu_all=1\ncgroup_groups=g\n"
              "cgroup_components=c\nmem_limit_kernel_range=r\nmem_limit_exclude_kernels=k\n"
              "mem_limit_exclude_range=e\n"));
    EXPECT_EQ(Opened(), journal());
    EXPECT_EQ("cpu=20 mem=30 fd=1024 a=5 b=0 rio=20480 wio=20480 pid=100 all=1", Show(m_config));
    EXPECT_EQ("g", pri().m_cgroupGroupsSpec);
    EXPECT_EQ("c", pri().m_cgroupComponentsSpec);
    EXPECT_EQ("r", pri().m_memLimitKernelRange);
    EXPECT_EQ("k", pri().m_memLimitExcludeKernels);
    EXPECT_EQ("e", pri().m_memLimitExcludeRange);
    EXPECT_EQ(0, pri().m_effectiveMaxCpu);
}

// --- first application ---

TEST_F(ResourceConfigurationTest, RecordsWidenedMaximaInUnifiedOnly) {
    struct Case {
        const char* text;
        int cpu, mem;
    };
    const Case cases[] = {
        {"resource_limit_mode=0", 10, 200},
        {"resource_limit_mode=5", 10, 200},
        {"resource_limit_mode=8", 15, 300},
        {"resource_limit_mode=13", 15, 300},
        {"resource_limit_mode=8\ncpu_all=1", 10, 300},
        {"resource_limit_mode=8\nmax_cpu=20\nmax_memory=1024", 25, 1124},
        {"resource_limit_mode=8\nmax_cpu=4\nmax_memory=2", 6, 3},
        {"resource_limit_mode=8\nmax_cpu=1\nmax_memory=1", 1, 1},
        {"resource_limit_mode=8\nmax_cpu=2147483647\nmax_memory=2147483647", INT_MAX, INT_MAX},
        {"resource_limit_mode=8\nmax_cpu=2147483647\ncpu_all=1", INT_MAX, 300},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_TRUE(Parse(c.text));
        EXPECT_EQ(c.cpu, m_config.maxCpu);
        EXPECT_EQ(c.mem, m_config.maxMemory);
        EXPECT_EQ(c.cpu, pri().m_effectiveMaxCpu);
        EXPECT_EQ(c.mem, pri().m_effectiveMaxMem);
    }
}

TEST_F(ResourceConfigurationTest, PublishesPlainMaximaInUnifiedToo) {
    platform().kernel.release = "4.19.0-5-amd64";
    EXPECT_TRUE(Parse("resource_limit_mode=13\nmem_limit_kernel_range=4.18.0-1,4.20.0-1\n"));
    Published published;
    published.mode = 13;
    EXPECT_EQ(Joined({Opened(),
                      published.lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuOn(13, 10, 9, 50),
                      // 200 MB and one half more, in bytes, the larger first
                      {"IsResourceLimitMemCgroupV2Runtime()", "W4 not match 0 try to set mem limit",
                       "CToolUtil::GetApplicationDirPath()", "CFileUtil::IsFile(/opt/agent/home/cgroup_errors)",
                       "uname()", "GetResourceLimitUtil()", "IResourceLimitUtil::PrepareMemLimit()",
                       "IResourceLimitUtil::StartMemLimit(314572800,209715200,error=0)",
                       "IResourceLimitUtil::IsMemLimited()", "W4 mem limit success"}}),
              calls());
    EXPECT_EQ(10, conf().groupMaxCpu.Get());
    EXPECT_EQ(200, conf().groupMaxMemory.Get());
}

TEST_F(ResourceConfigurationTest, PublishesNegativeMaximaAsTheyAre) {
    EXPECT_TRUE(Parse("max_cpu=-3\nmax_memory=-4\n"));
    EXPECT_EQ(-3, conf().maxCpu.Get());
    EXPECT_EQ(-3, conf().groupMaxCpu.Get());
    EXPECT_EQ(-4, conf().maxMemory.Get());
    EXPECT_EQ(-4, conf().groupMaxMemory.Get());
    EXPECT_EQ(-3, pri().m_effectiveMaxCpu);
    EXPECT_EQ(-4, pri().m_effectiveMaxMem);
    EXPECT_EQ(0, m_config.maxCpu);
    EXPECT_EQ(0, m_config.maxMemory);
    EXPECT_EQ(0, pri().m_legacyMemFirstLimit);
    EXPECT_EQ(0, pri().m_legacyMemSecondLimit);
}

TEST_F(ResourceConfigurationTest, SetsCpuModeBeforeALimitAsksForIt) {
    platform().base.solaris = false;
    EXPECT_TRUE(Parse("cpu_all=1\nresource_limit_mode=1\n"));
    Published published;
    published.cpuAll = 1;
    published.mode = 1;
    EXPECT_EQ(
        Joined({Opened(),
                published.lines(),
                {"CResourceMonitor::SetCpuSolarisMode(1)", "IsResourceLimitCpuCgroupV2Runtime()",
                 "CResourceMonitor::IsCpuSolarisMode()", "sysconf(_SC_NPROCESSORS_CONF)", "GetResourceLimitUtil()",
                 "IResourceLimitUtil::SyncCpuLimit()", "F4 [MonitorPri] resource mode user conf:1",
                 "F4 [MonitorPri] resource cpu user conf:10", "F4 [MonitorPri] resource get res:1",
                 "W4 not match 0 try to start resource limit", "IResourceLimitUtil::StartCpuLimit(38,0,error=0)",
                 "W4 limit cpu success", "IResourceLimitUtil::IsCpuLimited()"},
                LegacyMemOff()}),
        calls());
}

TEST_F(ResourceConfigurationTest, SucceedsAlsoWhenEveryLimitFails) {
    platform().limit.startCpu.Always({1, 2});
    EXPECT_TRUE(Parse("resource_limit_mode=5\n"));
    Published published;
    published.mode = 5;
    EXPECT_EQ(Joined({Opened(),
                      published.lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)", "IsResourceLimitCpuCgroupV2Runtime()",
                       "CResourceMonitor::IsCpuSolarisMode()", "GetResourceLimitUtil()",
                       "IResourceLimitUtil::SyncCpuLimit()", "F4 [MonitorPri] resource mode user conf:5",
                       "F4 [MonitorPri] resource cpu user conf:10", "F4 [MonitorPri] resource get res:1",
                       "W4 not match 0 try to start resource limit", "IResourceLimitUtil::StartCpuLimit(9,50,error=0)",
                       "F3 [MonitorPri] limit cpu fail, error is 2", "IResourceLimitUtil::IsCpuLimited()",
                       "IsResourceLimitMemCgroupV2Runtime()", "W4 not match 0 try to set mem limit",
                       "CToolUtil::GetApplicationDirPath()", "CFileUtil::IsFile(/opt/agent/home/cgroup_errors)",
                       "F4 [MonitorPri] kernel not in limit range: !", "F3 [MonitorPri] mem limit fail [10 - 0]"}}),
              calls());
    EXPECT_EQ(kDefaults, Show(m_config));
}

TEST_F(ResourceConfigurationTest, LaterParseIsHeldAgainstTheFirst) {
    EXPECT_TRUE(Parse(""));
    journal();
    EXPECT_TRUE(Parse(""));
    EXPECT_EQ(Joined({Opened(),
                      Published().lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)"},
                      LegacyCpuUnchanged(),
                      LegacyMemUnchanged()}),
              calls());
}

// --- first application in the main process under the unified mode ---

class UnifiedConfigurationTest : public ResourceConfigurationTest {
protected:
    void SetUp() override {
        ResourceConfigurationTest::SetUp();
        pri().m_isMainAgent = true;
    }
    /// Asked by whoever wants to know whether the unified mode runs on a version 2 hierarchy.
    const Lines m_versionAsked = {"CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsCpuV2()",
                                  "CCgroupManager::IsMemCgroupEnabled()"};
    const std::string m_file = "/opt/agent/home/conf/cgroup_resource.json";
};

TEST_F(UnifiedConfigurationTest, AppliesUnifiedOomLegacyThenSelfKill) {
    platform().manager.cpuEnabled.Always(true);
    EXPECT_TRUE(
        Parse("max_cpu=20\nresource_limit_mode=9\ncgroup_groups=main:20:15360\n"
              "cgroup_components=Tervane:main:main:2000:15360\n"));
    Published published;
    published.maxCpu = 20;
    published.mode = 9;
    EXPECT_EQ(Joined({Opened(),
                      published.lines(),
                      {"CResourceMonitor::SetCpuSolarisMode(0)"},
                      // the unified mode takes the widened pair: 25 percent less a margin of 5 %, and 300 MB
                      {"CCgroupManager::CCgroupManager()", "CCgroupManager::EnsureInitialized()",
                       "CResourceMonitor::IsCpuSolarisMode()", "uname()",
                       "F4 [MonitorPri] MonitorPri: parsed 1 cgroup groups from config",
                       "F4 [MonitorPri] MonitorPri: parsed 1 cgroup components from config",
                       "CCgroupManager::Reconcile(1,0,total{cpu=1 23.00 mem=0 460800KB},groups[main cpu=1 4.60 mem=0 "
                       "0KB])",
                       "CCgroupManager::IsCpuCgroupEnabled()", "CCgroupManager::IsMemCgroupEnabled()",
                       "CCgroupManager::IsParentCpuActive()", "CCgroupManager::IsParentMemActive()",
                       "CCgroupManager::AddPidToGroup(main,4242)",
                       "CCgroupManager::WriteComponentConfig(" + m_file + ",quotas[Tervane@main/main 92 23040KB],0,0)",
                       "F4 [MonitorPri] MonitorPri: unified self-kill quota cpuActive=1 cpuQ=92 memActive=0 memQ=0"},
                      m_versionAsked,
                      {"ClearResourceLimitCpuCgroupState()", "CCgroupManager::SnapshotSelfMemoryOomCounters()",
                       "W3 MonitorPri: no IPC broadcast callback, cannot send cgroup config notify",
                       "W4 MonitorPri: multi-cgroup initialized"},
                      {"CCgroupManager::PollMemoryOomEvents()"},
                      // the legacy CPU limit stands aside
                      m_versionAsked,
                      {"IsResourceLimitCpuCgroupV2Runtime()", "CCgroupManager::IsCpuCgroupEnabled()",
                       "ClearResourceLimitCpuCgroupState()"},
                      // the legacy memory limit goes on: nobody else holds that controller
                      m_versionAsked,
                      {"IsResourceLimitMemCgroupV2Runtime()", "CCgroupManager::IsMemCgroupEnabled()",
                       "W4 match 0 try to close mem limit", "GetResourceLimitUtil()",
                       "IResourceLimitUtil::StopMemLimit(error=0,1)", "IResourceLimitUtil::IsMemLimited()"},
                      {"F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=25 mem=300) effective(cpu=1 mem=300) "
                       "unified(cpu=1 mem=0)"}}),
              calls());
    EXPECT_EQ("cpu=1 mem=300 fd=1024 a=5 b=0 rio=20480 wio=20480 pid=100 all=0", Show(m_config));
    EXPECT_EQ(25, pri().m_effectiveMaxCpu);
    EXPECT_EQ(300, pri().m_effectiveMaxMem);
    EXPECT_EQ(20, conf().groupMaxCpu.Get());
    EXPECT_EQ(200, conf().groupMaxMemory.Get());
}

TEST_F(UnifiedConfigurationTest, DoesNotWidenWholeMachinesCpu) {
    platform().manager.cpuEnabled.Always(true);
    EXPECT_TRUE(Parse("max_cpu=20\ncpu_all=1\nresource_limit_mode=9\n"));
    EXPECT_EQ(19 * 4, platform().manager.lastTotal.cpuLimitPercent) << "20 percent less 5 %, on four processors";
    EXPECT_EQ(300 * 1024 * 3 / 2, platform().manager.lastTotal.memLimitKB);
}

TEST_F(UnifiedConfigurationTest, WidensRecordWhenUnifiedFailedToo) {
    platform().manager.reconcile.Always(false);
    EXPECT_TRUE(Parse("resource_limit_mode=9\n"));
    EXPECT_FALSE(pri().m_unifiedActive);
    EXPECT_EQ("cpu=15 mem=300 fd=1024 a=5 b=0 rio=20480 wio=20480 pid=100 all=0", Show(m_config));
    const Lines all = calls();
    EXPECT_THAT(all,
                testing::IsSupersetOf({"W3 MonitorPri: active desired but reconcile all failed, fallback to legacy",
                                       "IResourceLimitUtil::StartCpuLimit(9,50,error=0)"}))
        << "the legacy limit takes over with the plain maximum";
}

TEST_F(ResourceConfigurationTest, FollowsAJoinedClientsQuota) {
    zel::CCgroupClient client;
    pri().m_cgroupClient = &client;
    platform().client.cpuJoined.Always(true);
    platform().client.cpuQuota.Always(750);
    journal();
    EXPECT_TRUE(Parse("resource_limit_mode=8\n"));
    EXPECT_EQ(8, m_config.maxCpu) << "the quota in force, not the widened maximum";
    EXPECT_EQ(300, m_config.maxMemory);
    EXPECT_EQ(15, pri().m_effectiveMaxCpu);
    const Lines all = calls();
    EXPECT_THAT(all, testing::Not(testing::Contains(testing::HasSubstr("StartCpuLimit"))));
    EXPECT_EQ(
        "F4 [MonitorPri] MonitorPri: self-kill limits config(cpu=15 mem=300) effective(cpu=8 mem=300) "
        "unified(cpu=1 mem=0)",
        all.back());
}
