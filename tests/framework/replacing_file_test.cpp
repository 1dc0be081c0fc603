// SPDX-License-Identifier: BSD-3-Clause
// Output files that replace their targets only when complete: links followed, files that are
// not regular refused, modes kept, temporaries removed after failures, kills and earlier runs.
#include "basalt/replacing_file.hpp"

#include "support/scratch_directory.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Basalt::ReplacingFile;
namespace fs = std::filesystem;

class ReplacingFiles : public ScratchDirectory {
protected:
  void put(const std::string& path, const std::string& text) {
    ReplacingFile out(path);
    out.write(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    out.commit();
  }
  static std::string read(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  static unsigned modeOf(const std::string& path) {
    struct stat s {};
    ::stat(path.c_str(), &s);
    return s.st_mode & 07777;
  }
  // The message of constructing a replacing file for path, empty when it is accepted.
  static std::string refusal(const std::string& path) {
    try {
      ReplacingFile out(path);
    } catch (const ReplacingFile::Error& e) {
      return e.what();
    }
    return "";
  }
};

TEST_F(ReplacingFiles, LinksAreFollowedAndOnlyRegularFilesReplaced) {
  std::ofstream(file("real")) << "old";
  fs::create_symlink("real", file("link"));
  fs::create_symlink("link", file("chain"));
  put(file("chain"), "new");
  EXPECT_TRUE(fs::is_symlink(file("link")));
  EXPECT_TRUE(fs::is_symlink(file("chain")));
  EXPECT_EQ(read(file("real")), "new");
  // A link to nothing yet makes its target.
  fs::create_symlink("made", file("dangling"));
  put(file("dangling"), "made");
  EXPECT_EQ(read(file("made")), "made");

  fs::create_directory(file("folder"));
  ASSERT_EQ(::mkfifo(file("pipe").c_str(), 0644), 0);
  EXPECT_EQ(refusal(file("folder")), file("folder") + ": is a directory");
  EXPECT_EQ(refusal(file("pipe")),
            file("pipe") + ": is not a regular file (a device or a pipe); it is not replaced");
  fs::create_symlink("loop2", file("loop1"));
  fs::create_symlink("loop1", file("loop2"));
  EXPECT_EQ(refusal(file("loop1")), file("loop1") + ": too many levels of symbolic links");
  EXPECT_EQ(refusal(file("missing/out"))
                .rfind(file("missing/out") + ": cannot create the temporary file ", 0),
            0u);
  EXPECT_EQ(filesInDir(), 9u); // nothing left beside the targets
}

TEST_F(ReplacingFiles, ModesAreKeptAndNewFilesFollowTheMask) {
  std::ofstream(file("kept")) << "old";
  ::chmod(file("kept").c_str(), 0640);
  put(file("kept"), "new");
  EXPECT_EQ(modeOf(file("kept")), 0640u);
  EXPECT_EQ(read(file("kept")), "new");

  const mode_t mask = ::umask(027);
  put(file("fresh"), "x");
  ::umask(mask);
  EXPECT_EQ(modeOf(file("fresh")), 0640u);
}

TEST_F(ReplacingFiles, UncommittedWritesLeaveTheEarlierFile) {
  std::ofstream(file("target")) << "earlier";
  {
    ReplacingFile out(file("target"));
    EXPECT_TRUE(fs::exists(out.temporary()));
    out.write(reinterpret_cast<const std::uint8_t*>("later"), 5);
  }
  EXPECT_EQ(read(file("target")), "earlier");
  EXPECT_EQ(filesInDir(), 1u);
}

// A child process writes past its file-size limit, or is killed while writing; the earlier file
// stays and no temporary is left.
TEST_F(ReplacingFiles, FailedAndKilledWritesLeaveNoTemporary) {
  std::ofstream(file("target")) << "earlier";
  const pid_t tooLarge = ::fork();
  if (tooLarge == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1000, 1000};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    try {
      ReplacingFile out(file("target"));
      const std::vector<std::uint8_t> bytes(5000);
      out.write(bytes.data(), bytes.size());
    } catch (const ReplacingFile::Error& e) {
      const std::string expected = file("target") + ": cannot write the file: File too large";
      ::_exit(e.what() == expected ? 7 : 1);
    }
    ::_exit(2);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(tooLarge, &status, 0), tooLarge);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);

  for (int signal : {SIGTERM, SIGINT}) {
    const pid_t killed = ::fork();
    if (killed == 0) {
      ReplacingFile out(file("target"));
      out.write(reinterpret_cast<const std::uint8_t*>("later"), 5);
      std::raise(signal);
      ::_exit(0);
    }
    ASSERT_EQ(::waitpid(killed, &status, 0), killed);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal);
  }
  EXPECT_EQ(read(file("target")), "earlier");
  EXPECT_EQ(filesInDir(), 1u);
}

TEST_F(ReplacingFiles, TemporariesOfEndedRunsAreRemoved) {
  const pid_t ended = ::fork();
  if (ended == 0)
    ::_exit(0);
  ::waitpid(ended, nullptr, 0);
  const std::string dead = std::to_string(ended), alive = std::to_string(::getpid());
  for (const std::string& name :
       {"out.tmp." + dead, "out.tmp." + dead + ".3", "out.tmp." + alive + ".9",
        std::string("out.tmp.x"), "out.tmp." + dead + ".x", "other.tmp." + dead})
    std::ofstream(file(name)) << "left";
  put(file("out"), "new");
  EXPECT_FALSE(fs::exists(file("out.tmp." + dead)));
  EXPECT_FALSE(fs::exists(file("out.tmp." + dead + ".3")));
  // Ours, not of our naming, or of another target: kept.
  EXPECT_TRUE(fs::exists(file("out.tmp." + alive + ".9")));
  EXPECT_TRUE(fs::exists(file("out.tmp.x")));
  EXPECT_TRUE(fs::exists(file("out.tmp." + dead + ".x")));
  EXPECT_TRUE(fs::exists(file("other.tmp." + dead)));
  // The folder was read for the first target; the second finds its own from that reading.
  put(file("other"), "new");
  EXPECT_FALSE(fs::exists(file("other.tmp." + dead)));
  EXPECT_TRUE(fs::exists(file("out.tmp." + alive + ".9")));
  EXPECT_EQ(read(file("other")), "new");
}

} // namespace
