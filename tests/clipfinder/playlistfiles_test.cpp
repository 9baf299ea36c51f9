// SPDX-License-Identifier: MIT
// Tests of the playlist file operations and of the clip chosen after a delete.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "clipfinder_support.h"

namespace {

using clipfinder_test::clip;
using clipfinder_test::RecordingParams;
using clipfinder_test::UniqueCaches;
using vorta_test::readFile;
using vorta_test::writeFile;

bool exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

class PlaylistFiles : public ::testing::Test {
 protected:
  PlaylistFiles() : finder(&params, caches.config) {
    zev = dir.file("ZEV");
    ::mkdir(zev.c_str(), 0755);
    params.setParamString(eParamMediaDir, zev);
  }
  vorta_test::TempDir dir;
  std::string zev;
  UniqueCaches caches;
  RecordingParams params;
  ClipFinder finder;
};

TEST_F(PlaylistFiles, RenameKeepsAnExistingExtension) {
  writeFile(zev + "/old.playlist", "OLD");
  writeFile(zev + "/new.playlist", "NEW");
  EXPECT_TRUE(finder.renamePlaylist("old.playlist", "new.playlist"));
  EXPECT_FALSE(exists(zev + "/old.playlist"));
  EXPECT_EQ(readFile(zev + "/new.playlist"), "OLD");
  EXPECT_FALSE(exists(zev + "/new.playlist.playlist"));
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
}

// The extension is added after the names were canonicalised, so the bare
// names must resolve too.
TEST_F(PlaylistFiles, RenameAppendsTheExtensionAfterCanonicalisation) {
  writeFile(zev + "/old", "");
  writeFile(zev + "/new", "");
  writeFile(zev + "/old.playlist", "OLD");
  EXPECT_TRUE(finder.renamePlaylist("old", "new"));
  EXPECT_EQ(readFile(zev + "/new.playlist"), "OLD");
  EXPECT_FALSE(exists(zev + "/old.playlist"));
  EXPECT_TRUE(exists(zev + "/old"));
}

TEST_F(PlaylistFiles, RenameOutsideAZevDirectoryIsRefusedSilently) {
  const std::string other = dir.file("media");
  ::mkdir(other.c_str(), 0755);
  writeFile(other + "/a.playlist", "A");
  writeFile(other + "/b.playlist", "B");
  params.setParamString(eParamMediaDir, other);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.renamePlaylist("a.playlist", "b.playlist"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(readFile(other + "/a.playlist"), "A");
}

TEST_F(PlaylistFiles, RenameThroughALinkIsJudgedByTheRealPath) {
  const std::string other = dir.file("media");
  ::mkdir(other.c_str(), 0755);
  writeFile(other + "/a.playlist", "A");
  writeFile(other + "/b.playlist", "B");
  ASSERT_EQ(::symlink(other.c_str(), (zev + "/link").c_str()), 0);
  params.setParamString(eParamMediaDir, zev + "/link");
  EXPECT_FALSE(finder.renamePlaylist("a.playlist", "b.playlist"));
}

TEST_F(PlaylistFiles, RenameToANameThatCannotBeResolvedFails) {
  writeFile(zev + "/old.playlist", "OLD");
  EXPECT_FALSE(finder.renamePlaylist("old.playlist", "brand-new.playlist"));
  EXPECT_TRUE(exists(zev + "/old.playlist"));
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(PlaylistFiles, ARenameTheFileSystemRefusesIsReported) {
  writeFile(zev + "/old.playlist", "OLD");
  ::mkdir((zev + "/dir.playlist").c_str(), 0755);
  writeFile(zev + "/dir.playlist/x", "");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.renamePlaylist("old.playlist", "dir.playlist"));
  const std::string err = testing::internal::GetCapturedStderr();
  char* oldPath = ::realpath((zev + "/old.playlist").c_str(), nullptr);
  char* newPath = ::realpath((zev + "/dir.playlist").c_str(), nullptr);
  EXPECT_EQ(err,
            std::string("renamePlaylist: Is a directory\nUnable to rename ") + oldPath + " to " + newPath);
  std::free(oldPath);
  std::free(newPath);
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2}));
}

// Kept as the device has it: the file is opened with mode "rw", which the C
// library reads as "r".
TEST_F(PlaylistFiles, WriteOfAMissingFileFailsAndOfAnExistingOneLeavesItUnchanged) {
  std::string name = "new.playlist", text = R"({"name":"new","cliplist":[]})";
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.writePlaylist(name, text));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ClipFinder::writePlaylist - call to zev::utils::file::File::write_file failed: No such file or "
            "directory\n");
  EXPECT_FALSE(exists(zev + "/new.playlist"));

  writeFile(zev + "/new.playlist", "BEFORE");
  EXPECT_TRUE(finder.writePlaylist(name, text));
  EXPECT_EQ(readFile(zev + "/new.playlist"), "BEFORE");
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2, 1, 2}));
}

TEST_F(PlaylistFiles, DeleteRemovesTheFileOrReportsBothMessages) {
  writeFile(zev + "/a.playlist", "A");
  EXPECT_TRUE(finder.deletePlaylist("a.playlist"));
  EXPECT_FALSE(exists(zev + "/a.playlist"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.deletePlaylist("a.playlist"));
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "delete_file - unlink failed: No such file or directory\n"
      "ClipFinder::deletePlaylist - call to zev::utils::file::File::delete_file failed: No such file or "
      "directory\n");
  EXPECT_EQ(params.busyWrites(), (std::vector<uint32_t>{1, 2, 1, 2}));
}

TEST_F(PlaylistFiles, AnEmptyMediaDirectoryIsRefusedWithoutTouchingTheBusyFlag) {
  params.setParamString(eParamMediaDir, "");
  std::string name = "a.playlist", text = "{}";
  testing::internal::CaptureStderr();
  EXPECT_FALSE(finder.writePlaylist(name, text));
  EXPECT_FALSE(finder.renamePlaylist("a", "b"));
  EXPECT_FALSE(finder.deletePlaylist("a"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "ClipFinder::writePlaylist - mediaDir is empty\n"
            "ClipFinder::renamePlaylist - mediaDir is empty\n"
            "ClipFinder::deletePlaylist - mediaDir is empty\n");
  EXPECT_TRUE(params.busyWrites().empty());
}

TEST_F(PlaylistFiles, NextClipAfterDeleteWrapsToTheFirstSurvivor) {
  const std::list<Clip> clips{clip("A.mov"), clip("B.mov"), clip("C.mov")};
  EXPECT_EQ(finder.NextClipNameAfterDelete(clips, "B.mov", {"B.mov"}), "C.mov");
  EXPECT_EQ(finder.NextClipNameAfterDelete(clips, "B.mov", {"B.mov", "C.mov"}), "A.mov");
  EXPECT_EQ(finder.NextClipNameAfterDelete(clips, "B.mov", {"A.mov", "B.mov", "C.mov"}), "N/A");
  EXPECT_EQ(finder.NextClipNameAfterDelete(clips, "D.mov", {"B.mov"}), "D.mov");
  EXPECT_EQ(finder.NextClipNameAfterDelete(clips, "D.mov", {"D.mov", "A.mov"}), "B.mov");
  EXPECT_EQ(finder.NextClipNameAfterDelete({}, "B.mov", {"B.mov"}), "N/A");
}

}  // namespace
