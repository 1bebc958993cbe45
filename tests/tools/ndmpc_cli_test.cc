// End-to-end runs of the ndmpc binary against the simulated server.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "ndmpc/ndmp/helpers/tape_helper.h"
#include "tests/tools/tools_test_support.h"
#include "tools/simulator/virtual_tape.h"

namespace com::vx::korvane::ndmpc::tools::testing {
namespace {

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Runs ndmpc against `sim` and parses its JSON output; a null value when
// the status differs from `status` or the output is not JSON.
CJson RunJson(const CSimFixture& sim, const std::vector<std::string>& args, int status = 0) {
  const CRunResult r = RunNdmpc(With(sim.Target(), With({"--json"}, args)));
  CJson json;
  EXPECT_EQ(r.status, status) << args[0] << "\n" << r.err;
  // `watch` prints one value a line.
  const std::size_t end = args[0] == "watch" ? r.out.find('\n') : std::string::npos;
  EXPECT_TRUE(ParseJson(r.out.substr(0, end), &json)) << r.out;
  return r.status == status ? json : CJson();
}

TEST(Ndmpc, CommandsReportAndExitAsDocumented) {
  CSimFixture sim;
  // Only version 4, and no answer to the extension query.
  CSimServerConfig config = CSimFixture::DefaultConfig();
  config.versions = {4};
  config.answerExtList = false;
  CSimFixture odd(config);
  const std::vector<std::string> targets[] = {
      sim.Target(), sim.Target(false), odd.Target(),
      {"-H", "127.0.0.1", "-p", "1", "-u", "ndmp", "--password", "secret"}, {}};
  enum { kSim, kAnonymous, kOdd, kClosed, kOffline };
  const struct {
    int target;
    std::vector<std::string> args;
    int status;
    std::vector<std::string> out, err;  // texts each must hold; no err: it stays empty
  } cases[] = {
      {kSim, {"info"}, 0, {"NDMP version 4", "Authentication:    MD5, TEXT", "simfiler",
                           "LOCAL, TCP", "/vol/home", "changer0", "Extensions:        none"}, {}},
      // Refused queries are shown, not fatal; the server information is open to all.
      {kAnonymous, {"info"}, 0,
       {"Host:              refused: NDMP_NOT_AUTHORIZED_ERR", "Authentication:    MD5, TEXT"},
       {"warning: not authenticated"}},
      // An unanswered extension query costs a short wait, far below the two
      // minutes a request may take (RunNdmpc gives up after one).
      {kOdd, {"--timeout", "120", "info"}, 0, {"Extensions:        no answer"}, {}},
      {kOdd, {"--protocol", "3", "info"}, 3, {}, {"did not agree on NDMP version 3"}},
      {kSim, {"send", "NDMP_CONFIG_GET_HOST_INFO"}, 0, {"hostname = \"simfiler\""}, {}},
      {kSim, {"scsi", "changer0"}, 0, {"SCSI device changer0: controller 0"}, {}},
      {kSim, {"data", "state"}, 0, {"NDMP_DATA_STATE_IDLE"}, {}},
      {kClosed, {"info"}, 3, {}, {"connection refused"}},
      {kSim, {"--password", "wrong", "info"}, 4, {}, {"authentication as"}},
      {kSim, {"send", "NDMP_TAPE_GET_STATE"}, 5, {}, {"NDMP_DEV_NOT_OPEN_ERR"}},
      {kSim, {"send", "NDMP_SNAP_GET_SERVER_INFO"}, 5, {},
       {"NDMP_SNAP_GET_SERVER_INFO: NDMP_NOT_SUPPORTED_ERR"}},
      {kSim, {"scsi", "changer9"}, 5, {}, {"NDMP_NO_DEVICE_ERR"}},
      {kSim, {"frobnicate"}, 2, {}, {"unknown command"}},
      {kSim, {"--timeout", "soon", "info"}, 2, {}, {"--timeout"}},
      {kSim, {"tape", "write", "t", "/nonexistent/x"}, 1, {}, {"cannot read"}},
      // Bad fields and names are usage errors found before connecting.
      {kClosed, {"send", "NDMP_TAPE_OPEN", "Devce=x"}, 2, {}, {"its fields are: Device, Mode"}},
      {kClosed, {"send", "NDMP_TAPE_OPN"}, 2, {}, {"unknown message"}},
      {kOffline, {"--help"}, 0, {"Exit status:"}, {}},
      {kOffline, {"tape", "--help"}, 0, {"ndmpc [OPTIONS] tape mtio DEVICE OP [COUNT]"}, {}},
      {kOffline, {"messages"}, 0, {"NDMP_SNAP_CREATE"}, {}},
      {kOffline, {"messages", "data_start_backup"}, 0,
       {"Environments[]  list of records (or NAME=VALUE)"}, {}},
      {kOffline, {"serve", "--auth", "md5"}, 2, {}, {"needs --user and --password"}},
  };
  for (const auto& c : cases) {
    const CRunResult r = RunNdmpc(With(targets[c.target], c.args));
    const std::string name = c.args[0] + " " + c.args.back();
    EXPECT_EQ(r.status, c.status) << name << "\n" << r.err;
    for (const std::string& text : c.out) EXPECT_TRUE(Contains(r.out, text)) << name << r.out;
    for (const std::string& text : c.err) EXPECT_TRUE(Contains(r.err, text)) << name << r.err;
    EXPECT_TRUE(!c.err.empty() || r.err.empty()) << name << r.err;
  }
}

TEST(Ndmpc, JsonCarriesTheServersData) {
  CSimFixture sim;
  // A tape in the directory shows up as a device.
  std::string error;
  ASSERT_TRUE(CVirtualTape::Open(sim.TapeDir() + "/nrst0", true, 1 << 20, &error)) << error;
  CJson json = RunJson(sim, {"--protocol", "3", "info"});
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

  json = RunJson(sim, {"send", "tape_open", "Device=t9", "Mode=rdwr"});
  EXPECT_EQ(json["reply"]["NDMP_Error"]["name"].text, "NDMP_NO_ERR");
  // The simulator refuses extension messages.
  EXPECT_EQ(RunJson(sim, {"send", "NDMP_SVS_GET_INFO"}, 5)["error"]["name"].text,
            "NDMP_NOT_SUPPORTED_ERR");
  json = RunJson(sim, {"--protocol", "3", "mover", "state"});
  EXPECT_EQ(json["state"]["State"]["name"].text, "NDMP_MOVER_STATE_IDLE");
  EXPECT_FALSE(json["state"].Has("Mode")) << "not in version 3";
  json = RunJson(sim, {"watch", "1"});
  EXPECT_EQ(json["message"].text, "NDMP_NOTIFY_CONNECTION_STATUS");
  EXPECT_EQ(json["body"]["Reason"]["name"].text, "NDMP_CONNECTED");
}

TEST(Ndmpc, TapeCommandsWriteReadAndPosition) {
  CSimFixture sim;
  CTempDir files;
  const std::string a = WriteRandomFile(files.File("a"), 300 * 1000, 7);
  const std::string b = WriteRandomFile(files.File("b"), 2000, 2);
  const auto run = [&](const std::vector<std::string>& args) {
    return RunNdmpc(With(sim.Target(), With({"tape"}, args)));
  };
  CRunResult r = run({"write", "t", files.File("a"), "--record-size", "64K"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "(300000 bytes) in 5 records to t")) << r.out;
  ASSERT_EQ(run({"write", "t", files.File("b"), "--no-rewind"}).status, 0);
  r = run({"read", "t", files.File("a2"), "--record-size", "65536"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(Contains(r.out, "up to a filemark")) << r.out;
  EXPECT_TRUE(ReadFile(files.File("a2")) == a);
  ASSERT_EQ(run({"read", "t", files.File("b2"), "--file", "1"}).status, 0);
  EXPECT_TRUE(ReadFile(files.File("b2")) == b);

  // Two files then the end: a third fsf stops with a residual count.
  EXPECT_EQ(run({"mtio", "t", "rewind"}).status, 0);
  r = run({"mtio", "t", "fsf", "3"});
  EXPECT_EQ(r.status, 5);
  EXPECT_TRUE(Contains(r.err, "1 not done: NDMP_EOM_ERR")) << r.err;
  EXPECT_EQ(RunJson(sim, {"tape", "state", "t"})["state"]["FileNum"].number, 2);

  // A tape another session holds is reported with the error's name.
  CClient holder(sim.Port());
  ASSERT_TRUE(holder.Open());
  ASSERT_EQ(CNDMPTapeHelper::TapeOpen(holder.get(), "t",
                                      enums::CNDMPEnumTapeOpenMode::NDMP_TAPE_RDWR_MODE, false),
            enums::CNDMPError::NDMP_NO_ERR);
  r = run({"state", "t"});
  EXPECT_EQ(r.status, 5);
  EXPECT_TRUE(Contains(r.err, "NDMP_DEVICE_BUSY_ERR")) << r.err;
}

TEST(Ndmpc, ServesUntilInterruptedAndRunsTheDemo) {
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
  CJson json;
  ASSERT_TRUE(r.status == 0 && ParseJson(r.out, &json)) << r.err << r.out;
  EXPECT_EQ(json["protocol_version"].number, 3);
  EXPECT_EQ(serve.Stop(SIGINT, 30), 0);
  EXPECT_TRUE(Contains(serve.Output(), "Stopped.")) << serve.Output();

  r = RunNdmpc({"demo"}, 120);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_TRUE(Contains(r.out, "The restored tree matches the original")) << r.out;
}

TEST(Ndmpc, BackupAndRestoreReportInJsonAndExplainFailures) {
  CTempDir root;
  const std::string data = WriteRandomFile(root.File("src.bin"), 100000, 5);
  CSimFixture sim(CSimFixture::DataConfig(root.Path()));
  CJson json = RunJson(sim, {"backup", "/", "--tape", "t1", "--type", "dump", "--env", "NOTE=x"});
  EXPECT_EQ(json["outcome"].text, "succeeded");
  EXPECT_EQ(json["files"].number, 1);
  EXPECT_GT(json["bytes"].number, 100000);
  EXPECT_EQ(json["data_halt_reason"].text, "NDMP_DATA_HALT_SUCCESSFUL");
  EXPECT_EQ(json["environment"]["NOTE"].text, "x");
  EXPECT_EQ(json["environment"]["TYPE"].text, "dump");

  CRunResult r = RunNdmpc(With(sim.Target(), {"restore", "--tape", "t1", "--to", "/out", "--type",
                                              "dump", "/src.bin"}));
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
