// End-to-end runs of the ndmpc binary against the simulated server.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include "ndmpc/ndmp/connection/connection.h"
#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "tests/tools/tools_test_support.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

std::vector<std::string> With(std::vector<std::string> base, const std::vector<std::string>& more) {
  base.insert(base.end(), more.begin(), more.end());
  return base;
}

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(NdmpcInfo, ShowsEverySectionInText) {
  CSimFixture sim;
  CRunResult r = RunNdmpc(With(sim.Target(), {"info"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "NDMP version 4")) << r.out;
  EXPECT_TRUE(Contains(r.out, "Authentication:    MD5, TEXT")) << r.out;
  EXPECT_TRUE(Contains(r.out, "simfiler")) << r.out;
  EXPECT_TRUE(Contains(r.out, "LOCAL, TCP")) << r.out;
  EXPECT_TRUE(Contains(r.out, "/vol/home")) << r.out;
  EXPECT_TRUE(Contains(r.out, "changer0")) << r.out;
  EXPECT_TRUE(Contains(r.out, "Extensions:        none")) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(NdmpcInfo, JsonCarriesTheServersData) {
  CSimFixture sim;
  // A tape in the directory shows up as a device.
  std::string error;
  ASSERT_TRUE(CVirtualTape::Open(sim.TapeDir() + "/nrst0", true, 1 << 20, &error)) << error;
  CRunResult r = RunNdmpc(With(sim.Target(), {"--json", "--protocol", "3", "info"}));
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out, &json)) << r.out;
  EXPECT_EQ(json["protocol_version"].number, 3);
  EXPECT_EQ(json["server"]["vendor"].text, "ndmpc");
  EXPECT_EQ(json["server"]["auth_types"][0].text, "NDMP_AUTH_MD5");
  EXPECT_EQ(json["host"]["name"].text, "simfiler");
  EXPECT_EQ(json["connection_types"][1].text, "NDMP_ADDR_TCP");
  EXPECT_EQ(json["backup_types"][0]["default_env"]["LEVEL"].text, "0");
  ASSERT_EQ(json["file_systems"].items.size(), 2u);
  EXPECT_EQ(json["file_systems"][1]["total_bytes"].number, 500.0 * (1ull << 30));
  EXPECT_EQ(json["tape_devices"][0]["device"].text, "nrst0");
  EXPECT_EQ(json["scsi_devices"][0]["device"].text, "changer0");
  EXPECT_EQ(json["extensions"].kind, CJson::kArray);
}

TEST(NdmpcInfo, RefusedQueriesAreShownNotFatal) {
  CSimFixture sim;
  CRunResult r = RunNdmpc(With(sim.Target(false), {"info"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.err, "warning: not authenticated")) << r.err;
  EXPECT_TRUE(Contains(r.out, "Host:              refused: NDMP_NOT_AUTHORIZED_ERR")) << r.out;
  // The server information is open to everyone.
  EXPECT_TRUE(Contains(r.out, "Authentication:    MD5, TEXT")) << r.out;
}

TEST(NdmpcInfo, UnansweredExtensionQueryCostsOnlyAShortWait) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.answerExtList = false;
  CSimFixture sim(config);
  const auto start = std::chrono::steady_clock::now();
  CRunResult r = RunNdmpc(With(sim.Target(), {"--timeout", "120", "info"}));
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start)
          .count();
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "Extensions:        no answer")) << r.out;
  // Far below the two minutes a normal request may wait.
  EXPECT_LT(seconds, 60);
}

TEST(NdmpcTape, WriteThenReadGivesBackTheSameBytes) {
  CSimFixture sim;
  CTempDir files;
  const std::string original = WriteRandomFile(files.File("in.bin"), 300 * 1000, 7);
  CRunResult w = RunNdmpc(
      With(sim.Target(), {"tape", "write", "t1", files.File("in.bin"), "--record-size", "64K"}));
  ASSERT_EQ(w.status, 0) << w.err;
  EXPECT_TRUE(Contains(w.out, "(300000 bytes) in 5 records to t1")) << w.out;
  CRunResult r = RunNdmpc(
      With(sim.Target(), {"tape", "read", "t1", files.File("out.bin"), "--record-size", "65536"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "up to a filemark")) << r.out;
  EXPECT_TRUE(ReadFile(files.File("out.bin")) == original);
}

TEST(NdmpcTape, SecondFileIsReachedWithFileOption) {
  CSimFixture sim;
  CTempDir files;
  WriteRandomFile(files.File("a"), 1000, 1);
  const std::string b = WriteRandomFile(files.File("b"), 2000, 2);
  ASSERT_EQ(RunNdmpc(With(sim.Target(), {"tape", "write", "t", files.File("a")})).status, 0);
  ASSERT_EQ(
      RunNdmpc(With(sim.Target(), {"tape", "write", "t", files.File("b"), "--no-rewind"})).status,
      0);
  CRunResult r =
      RunNdmpc(With(sim.Target(), {"tape", "read", "t", files.File("c"), "--file", "1"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(ReadFile(files.File("c")) == b);

  // Two files then the end: a third fsf stops with a residual count.
  CRunResult m = RunNdmpc(With(sim.Target(), {"tape", "mtio", "t", "rewind"}));
  EXPECT_EQ(m.status, 0) << m.err;
  m = RunNdmpc(With(sim.Target(), {"tape", "mtio", "t", "fsf", "3"}));
  EXPECT_EQ(m.status, 5);
  EXPECT_TRUE(Contains(m.err, "1 not done: NDMP_EOM_ERR")) << m.err;
  CRunResult s = RunNdmpc(With(sim.Target(), {"--json", "tape", "state", "t"}));
  ASSERT_EQ(s.status, 0) << s.err;
  CJson json;
  ASSERT_TRUE(ParseJson(s.out, &json)) << s.out;
  EXPECT_EQ(json["state"]["FileNum"].number, 2);
}

TEST(NdmpcTape, BusyTapeIsReportedWithTheErrorName) {
  CSimFixture sim;
  CNDMPConnection holder("127.0.0.1", "", QuietLog(), sim.Port());
  ASSERT_EQ(holder.Connect(), enums::CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(holder.Authenticate("ndmp", "secret"), enums::CNDMPError::NDMP_NO_ERR);
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(&holder, "t",
                                      enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE, false),
            enums::CNDMPError::NDMP_NO_ERR);
  CRunResult r = RunNdmpc(With(sim.Target(), {"tape", "state", "t"}));
  EXPECT_EQ(r.status, 5);
  EXPECT_TRUE(Contains(r.err, "NDMP_DEVICE_BUSY_ERR")) << r.err;
  holder.Disconnect();
}

TEST(NdmpcSend, BuildsRequestsFromText) {
  CSimFixture sim;
  CRunResult r = RunNdmpc(With(sim.Target(), {"send", "NDMP_CONFIG_GET_HOST_INFO"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "hostname = \"simfiler\"")) << r.out;

  r = RunNdmpc(With(sim.Target(), {"--json", "send", "tape_open", "Device=t9", "Mode=rdwr"}));
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out, &json)) << r.out;
  EXPECT_EQ(json["reply"]["NDMP_Error"]["name"].text, "NDMP_NO_ERR");
  // The simulator refuses extension messages.
  r = RunNdmpc(With(sim.Target(), {"--json", "send", "NDMP_SVS_GET_INFO"}));
  EXPECT_EQ(r.status, 5);
  CJson refused;
  ASSERT_TRUE(ParseJson(r.out, &refused)) << r.out;
  EXPECT_EQ(refused["error"]["name"].text, "NDMP_NOT_SUPPORTED_ERR");
}

struct CExitCase {
  const char* name;
  std::vector<std::string> args;  // after the target and credentials
  bool closedPort;
  int status;
  const char* message;
};

TEST(NdmpcExitStatus, MatchesTheDocumentedCodes) {
  CSimFixture sim;
  // Bad fields and names are usage errors found before connecting.
  const std::vector<CExitCase> cases = {
      {"refused connection", {"info"}, true, 3, "connection refused"},
      {"wrong password", {"--password", "wrong", "info"}, false, 4, "authentication as"},
      {"error reply", {"send", "NDMP_TAPE_GET_STATE"}, false, 5, "NDMP_DEV_NOT_OPEN_ERR"},
      {"extension refused", {"send", "NDMP_SNAP_GET_SERVER_INFO"}, false, 5,
       "NDMP_SNAP_GET_SERVER_INFO: NDMP_NOT_SUPPORTED_ERR"},
      {"missing scsi device", {"scsi", "changer9"}, false, 5, "NDMP_NO_DEVICE_ERR"},
      {"unknown command", {"frobnicate"}, false, 2, "unknown command"},
      {"bad option value", {"--timeout", "soon", "info"}, false, 2, "--timeout"},
      {"unknown field", {"send", "NDMP_TAPE_OPEN", "Devce=x"}, true, 2,
       "its fields are: Device, Mode"},
      {"unknown message", {"send", "NDMP_TAPE_OPN"}, true, 2, "unknown message"},
      {"missing local file", {"tape", "write", "t", "/nonexistent/x"}, false, 1, "cannot read"},
  };
  for (const CExitCase& c : cases) {
    std::vector<std::string> args = {"-H", "127.0.0.1", "-p",
                                     c.closedPort ? "1" : std::to_string(sim.Port()),
                                     "-u", "ndmp", "--password", "secret"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    CRunResult r = RunNdmpc(args);
    EXPECT_EQ(r.status, c.status) << c.name << "\n" << r.err;
    EXPECT_TRUE(Contains(r.err, c.message)) << c.name << "\n" << r.err;
  }
}

TEST(NdmpcAgents, ScsiMoverAndDataStateAreShown) {
  CSimFixture sim;
  CRunResult r = RunNdmpc(With(sim.Target(), {"scsi", "changer0"}));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "SCSI device changer0: controller 0")) << r.out;
  r = RunNdmpc(With(sim.Target(), {"--protocol", "3", "--json", "mover", "state"}));
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out, &json)) << r.out;
  EXPECT_EQ(json["state"]["State"]["name"].text, "NDMP_MOVER_STATE_IDLE");
  EXPECT_FALSE(json["state"].Has("Mode")) << r.out;  // not in version 3
  r = RunNdmpc(With(sim.Target(), {"data", "state"}));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "NDMP_DATA_STATE_IDLE")) << r.out;
}

TEST(NdmpcConnect, ForcedVersionTheServerDoesNotOfferFails) {
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.versions = {4};
  CSimFixture sim(config);
  CRunResult r = RunNdmpc(With(sim.Target(), {"--protocol", "3", "info"}));
  EXPECT_EQ(r.status, 3);
  EXPECT_TRUE(Contains(r.err, "did not agree on NDMP version 3")) << r.err;
}

TEST(NdmpcWatch, PrintsTheConnectionStatusNotification) {
  CSimFixture sim;
  CRunResult r = RunNdmpc(With(sim.Target(), {"--json", "watch", "1"}));
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out.substr(0, r.out.find('\n')), &json)) << r.out;
  EXPECT_EQ(json["message"].text, "NDMP_NOTIFY_CONNECTION_STATUS");
  EXPECT_EQ(json["body"]["Reason"]["name"].text, "NDMP_CONNECTED");
}

TEST(NdmpcServe, ServesUntilInterrupted) {
  CTempDir tapes;
  CBackgroundNdmpc serve({"serve", "-p", "0", "--tape-dir", tapes.Path(), "--user", "u",
                          "--password", "p", "--versions", "3", "--tape-capacity", "5M",
                          "--data-root", tapes.Path()});
  ASSERT_TRUE(serve.WaitFor("Ctrl-C to stop.", 30)) << serve.Output();
  const std::string marker = "listening on 127.0.0.1:";
  const std::size_t at = serve.Output().find(marker);
  ASSERT_NE(at, std::string::npos) << serve.Output();
  const std::string port = std::to_string(std::stoul(serve.Output().substr(at + marker.size())));
  EXPECT_TRUE(Contains(serve.Output(), "tapes in " + tapes.Path() + ": tape0")) << serve.Output();
  EXPECT_TRUE(Contains(serve.Output(), "tape capacity 5.0 MiB\n  data agent: tar and dump of " +
                                           tapes.Path()))
      << serve.Output();
  CRunResult r = RunNdmpc({"-p", port, "-u", "u", "--password", "p", "--json", "info"});
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out, &json)) << r.out;
  EXPECT_EQ(json["protocol_version"].number, 3);
  EXPECT_EQ(serve.Stop(SIGINT, 30), 0);
  EXPECT_TRUE(Contains(serve.Output(), "Stopped.")) << serve.Output();

  r = RunNdmpc({"serve", "--auth", "md5"});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(Contains(r.err, "needs --user and --password")) << r.err;
}

TEST(NdmpcOffline, HelpMessagesAndDemoNeedNoServer) {
  CRunResult r = RunNdmpc({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(Contains(r.out, "Exit status:"));
  r = RunNdmpc({"tape", "--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(Contains(r.out, "ndmpc [OPTIONS] tape mtio DEVICE OP [COUNT]"));
  r = RunNdmpc({"messages"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(Contains(r.out, "NDMP_SNAP_CREATE")) << r.out;
  r = RunNdmpc({"messages", "data_start_backup"});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(Contains(r.out, "Environments[]  list of records (or NAME=VALUE)")) << r.out;
  r = RunNdmpc({"demo"}, 120);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(Contains(r.out, "matches the original")) << r.out;
  EXPECT_TRUE(Contains(r.out, "The restored tree matches the original")) << r.out;
}

TEST(NdmpcJob, BackupAndRestoreReportInJsonAndExplainFailures) {
  CTempDir root;
  const std::string data = WriteRandomFile(root.File("src.bin"), 100000, 5);
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.dataRoot = root.Path();
  CSimFixture sim(config);
  CRunResult r = RunNdmpc(With(sim.Target(), {"--json", "backup", "/", "--tape", "t1", "--type",
                                              "dump", "--env", "NOTE=x"}));
  ASSERT_EQ(r.status, 0) << r.err;
  CJson json;
  ASSERT_TRUE(ParseJson(r.out, &json)) << r.out;
  EXPECT_EQ(json["outcome"].text, "succeeded");
  EXPECT_EQ(json["files"].number, 1);
  EXPECT_GT(json["bytes"].number, 100000);
  EXPECT_EQ(json["data_halt_reason"].text, "NDMP_DATA_HALT_SUCCESSFUL");
  EXPECT_EQ(json["environment"]["NOTE"].text, "x");
  EXPECT_EQ(json["environment"]["TYPE"].text, "dump");

  r = RunNdmpc(With(sim.Target(), {"restore", "--tape", "t1", "--to", "/out", "--type", "dump",
                                   "/src.bin"}));
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "restore of t1 into /out: ")) << r.out;
  EXPECT_EQ(ReadFile(root.File("out/src.bin")), data);

  // A refused job names the failed step and says what to try.
  r = RunNdmpc(With(sim.Target(), {"backup", "/missing", "--tape", "t2"}));
  EXPECT_EQ(r.status, 5);
  EXPECT_TRUE(Contains(r.err, "data agent (127.0.0.1): NDMP_DATA_START_BACKUP refused")) << r.err;
  EXPECT_TRUE(Contains(r.err, "try: ")) << r.err;
}

}  // namespace
}  // namespace com::vx::korvane::ndmpc::tools::testing
