// The file-backed tape: positions, spacing with residual counts, overwrite
// in the middle, capacity, and a file torn by a crash.
#include "tools/simulator/virtual_tape.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/tools/tools_test_support.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

using Status = CVirtualTape::Status;

// A tape holding "R R F R F" (records of 10, 20 and 30 bytes).
std::unique_ptr<CVirtualTape> MakeTape(const std::string& path) {
  std::string error;
  auto tape = CVirtualTape::Open(path, true, 1 << 20, &error);
  EXPECT_TRUE(tape) << error;
  std::vector<unsigned char> data(30, 0xAB);
  std::uint32_t written = 0;
  tape->WriteRecord(data.data(), 10);
  tape->WriteRecord(data.data(), 20);
  tape->WriteFilemarks(1, &written);
  tape->WriteRecord(data.data(), 30);
  tape->WriteFilemarks(1, &written);
  tape->Rewind();
  return tape;
}

TEST(VirtualTape, SpacesWithResidualCounts) {
  struct CCase {
    const char* name;
    std::size_t startReads;  // records/marks read first to position the tape
    bool filemarks;
    bool forward;
    std::uint32_t count;
    Status status;
    std::uint32_t resid;
    std::uint32_t file;
    std::uint32_t block;
  };
  const CCase cases[] = {
      {"fsf 1", 0, true, true, 1, Status::kOk, 0, 1, 0},
      {"fsf 2", 0, true, true, 2, Status::kOk, 0, 2, 0},
      {"fsf past the end", 0, true, true, 3, Status::kEndOfData, 1, 2, 0},
      {"bsf from file 2 lands before the mark", 5, true, false, 1, Status::kOk, 0, 1, 1},
      {"bsf to the beginning", 5, true, false, 3, Status::kBeginning, 1, 0, 0},
      {"fsr stops at a filemark", 0, false, true, 5, Status::kFilemark, 3, 0, 2},
      {"bsr stops at a filemark", 4, false, false, 2, Status::kFilemark, 1, 1, 0},
      {"bsr to the beginning", 2, false, false, 3, Status::kBeginning, 1, 0, 0},
      {"fsr at the end of data", 5, false, true, 1, Status::kEndOfData, 1, 2, 0},
  };
  CTempDir dir;
  for (const CCase& c : cases) {
    auto tape = MakeTape(dir.File("t"));
    std::vector<unsigned char> data;
    for (std::size_t i = 0; i < c.startReads; ++i) tape->ReadRecord(100, &data);
    std::uint32_t resid = 99;
    Status status = c.filemarks ? tape->SpaceFilemarks(c.forward, c.count, &resid)
                                : tape->SpaceRecords(c.forward, c.count, &resid);
    EXPECT_EQ(status, c.status) << c.name;
    EXPECT_EQ(resid, c.resid) << c.name;
    EXPECT_EQ(tape->FileNumber(), c.file) << c.name;
    EXPECT_EQ(tape->BlockNumber(), c.block) << c.name;
    ::unlink(dir.File("t").c_str());
  }
}

// Capacity and the end of medium are checked through the simulator's tape agent.
TEST(VirtualTape, WritingInTheMiddleOrAfterATornEntryDiscardsTheRestAndPersists) {
  CTempDir dir;
  {
    auto tape = MakeTape(dir.File("t"));
    std::vector<unsigned char> data;
    ASSERT_EQ(tape->ReadRecord(4, &data), Status::kOk);
    EXPECT_EQ(data.size(), 4u);  // cut short, like a drive
    const unsigned char fresh[3] = {1, 2, 3};
    ASSERT_EQ(tape->WriteRecord(fresh, 3), Status::kOk);
    EXPECT_EQ(tape->EntryCount(), 2u);
    EXPECT_EQ(tape->DataBytes(), 13u);
  }
  std::string error;
  auto reopened = CVirtualTape::Open(dir.File("t"), false, 1 << 20, &error);
  ASSERT_TRUE(reopened) << error;
  std::vector<unsigned char> data;
  ASSERT_EQ(reopened->ReadRecord(100, &data), Status::kOk);
  EXPECT_EQ(data.size(), 10u);
  ASSERT_EQ(reopened->ReadRecord(100, &data), Status::kOk);
  EXPECT_EQ(data, (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(reopened->ReadRecord(100, &data), Status::kEndOfData);

  // A torn last entry is dropped and overwritten; other files are no tapes.
  MakeTape(dir.File("torn"));
  WriteRandomFile(dir.File("junk"), 100, 3);
  EXPECT_FALSE(CVirtualTape::Open(dir.File("junk"), false, 100, &error));
  EXPECT_FALSE(CVirtualTape::LooksLikeTape(dir.File("junk")));
  EXPECT_TRUE(CVirtualTape::LooksLikeTape(dir.File("torn")));
  struct stat info {};
  ASSERT_EQ(::stat(dir.File("torn").c_str(), &info), 0);
  // Cut into the last record's data: the filemark after it goes too.
  ASSERT_EQ(::truncate(dir.File("torn").c_str(), info.st_size - 8 - 5), 0);
  auto tape = CVirtualTape::Open(dir.File("torn"), false, 1 << 20, &error);
  ASSERT_TRUE(tape) << error;
  EXPECT_EQ(tape->EntryCount(), 3u);
  std::uint32_t resid = 0;
  EXPECT_EQ(tape->SpaceFilemarks(true, 1, &resid), Status::kOk);
  const unsigned char nines[7] = {9, 9, 9, 9, 9, 9, 9};
  ASSERT_EQ(tape->WriteRecord(nines, 7), Status::kOk);
  tape.reset();
  tape = CVirtualTape::Open(dir.File("torn"), false, 1 << 20, &error);
  ASSERT_TRUE(tape) << error;
  EXPECT_EQ(tape->EntryCount(), 4u);
  EXPECT_EQ(tape->DataBytes(), 37u);
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
