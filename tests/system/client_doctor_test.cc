#include <map>
#include <nlohmann/json.hpp>

#include "tests/system/mute_service.h"
#include "tests/system/system_fixture.h"

namespace kvox {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ClientDoctorTest : public SystemTest {
 protected:
  /// The findings by their check, and whether the exit status agrees with them.
  std::map<std::string, json> Doctor(const std::string& options = "") {
    const ClientRun run = Run(Words("doctor --json " + options));
    const json document = json::parse(run.out, nullptr, false);
    EXPECT_TRUE(document.is_object()) << run.out << run.err;
    std::map<std::string, json> findings;
    for (const json& finding : document.value("findings", json::array())) {
      findings[finding["check"]] = finding;
      EXPECT_EQ(finding["fix"].is_null(), finding["verdict"] == "ok") << finding;
    }
    EXPECT_EQ(run.exit_status, document.value("failed", -1) == 0 ? 0 : 1) << run.out;
    return findings;
  }

  static std::string TextOf(const json& finding) {
    return finding.value("verdict", "none") + ": " + finding.value("cause", "");
  }

  void Replace(const std::string& name) {
    std::filesystem::remove(directory_ / name);
    std::ofstream(directory_ / name) << std::flush;
  }
};

TEST_F(ClientDoctorTest, HasNothingAgainstDaemonAndSimulator) {
  StartBoth();
  ASSERT_TRUE(WaitFor([&] { return exists(directory_ / "dev/xdv-kvox_control"); }));
  const auto findings = Doctor();
  EXPECT_EQ(findings.size(), 13u);
  for (const auto& [check, finding] : findings) {
    if (check == "realtime" || check == "captures") continue;
    EXPECT_EQ(finding["verdict"], "ok") << finding;
  }
  const std::string pid = std::to_string(daemon_->pid());
  EXPECT_THAT(TextOf(findings.at("daemon")), HasSubstr("process " + pid + " of user "));
  EXPECT_THAT(TextOf(findings.at("realtime")), HasSubstr("kvoxd (process " + pid + ")"));
  EXPECT_THAT(TextOf(findings.at("tapouts")), HasSubstr("8, user "));
  EXPECT_THAT(Do("doctor --short"), HasSubstr("ok\tinterface\tinterface IKvox\tversion 3 on"));
  EXPECT_THAT(Do("doctor --color always"), StartsWith("\x1b[32mok       \x1b[0mdevice directory "));
  EXPECT_EQ(CountOf("cut off", daemon_->Err()), 0) << "it is no nuisance";
}

TEST_F(ClientDoctorTest, FindsWhatIsBroken) {
  StartBoth();
  Replace("dev/xdv-kvox_control");
  Replace("dev/xdv-kvox_tapout0");
  std::filesystem::remove(directory_ / "power/wake_lock");
  chmod((directory_ / "run").c_str(), 0777);
  chmod((directory_ / "run/kvox.IKvox:default.sock").c_str(), 0666);
  auto findings = Doctor("--captures " + (directory_ / "none").string());
  EXPECT_THAT(TextOf(findings["control"]), "failed: is a regular file, not a device");
  EXPECT_THAT(TextOf(findings["tapouts"]), StartsWith("failed: xdv-kvox_tapout0: is a regular"));
  EXPECT_THAT(TextOf(findings["wakelock"]), StartsWith("warning: is not there: wake locks are"));
  EXPECT_EQ(TextOf(findings["runtime"]), "failed: others may write to it, and kvoxd refuses it");
  EXPECT_EQ(TextOf(findings["socket"]), "warning: every user may call the daemon");
  EXPECT_EQ(TextOf(findings["captures"]), "warning: is not there");

  daemon_->Freeze();
  findings = Doctor("--timeout 0.3");
  EXPECT_THAT(TextOf(findings["daemon"]), HasSubstr("is stopped"));
  EXPECT_EQ(findings["daemon"]["fix"], "kill -CONT " + std::to_string(daemon_->pid()));
  EXPECT_EQ(findings.count("interface"), 0u);

  daemon_.reset();
  const ClientRun run = Run({"doctor"});
  EXPECT_EQ(run.exit_status, 1);
  EXPECT_THAT(run.out, HasSubstr("failed   daemon kvoxd: "));
  EXPECT_THAT(run.out,
              HasSubstr("belongs to a process that has ended  fix: kvoxd 2>kvoxd.log &\n"));
}

TEST_F(ClientDoctorTest, ItsFixesWorkInOneRound) {
  for (const char* const part : {"dev", "run", "power"}) remove_all(directory_ / part);
  const std::string bin = std::filesystem::path(KVOXD_PROGRAM).parent_path();
  setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
  const std::string doctor = "doctor --json --captures " + (directory_ / "wav").string();
  std::string fixes = "cd " + directory_.path().string() + "\n";
  const json ill = json::parse(Run(Words(doctor)).out);
  for (const json& finding : ill["findings"]) {
    if (!finding["fix"].is_null()) fixes += finding["fix"].get<std::string>() + "\n";
  }
  Process shell("/bin/sh", {"-c", fixes + "wait"}, directory_ / "sh", [] { setpgid(0, 0); });
  EXPECT_TRUE(WaitFor([&] { return Run(Words(doctor)).exit_status == 0; })) << fixes;
  const json well = json::parse(Do(doctor));
  for (const json& finding : well["findings"]) {
    if (finding["check"] == "realtime") continue;  // needs a privilege
    EXPECT_EQ(finding["verdict"], "ok") << finding << "\n" << fixes << shell.Err();
  }
  kill(-shell.pid(), SIGTERM);
  shell.Wait();
}

TEST_F(ClientDoctorTest, WorksWithoutAnythingAndWaitsForNothing) {
  setenv("KVOX_DEV_DIR", "/nowhere/dev", 1);
  setenv("KVOX_RUNTIME_DIR", "/nowhere/run", 1);
  auto findings = Doctor();
  EXPECT_EQ(TextOf(findings["devices"]), "failed: is not there");
  EXPECT_EQ(TextOf(findings["runtime"]), "ok: is not there; kvoxd makes it");
  EXPECT_THAT(TextOf(findings["realtime"]), HasSubstr("a kvoxd started here"));
  EXPECT_EQ(TextOf(findings["daemon"]), "failed: kvox.IKvox/default is not in /nowhere/run");

  setenv("KVOX_RUNTIME_DIR", (directory_ / "run").c_str(), 1);
  MuteService service(directory_ / "run");
  Process doctor(KVOXCTL_PROGRAM, Words("doctor --timeout 0.5"), directory_ / "doctor");
  service.TakeCall();
  EXPECT_EQ(doctor.Wait(), 1);
  EXPECT_THAT(doctor.Out(), HasSubstr("no answer within 0.5 s"));
  EXPECT_EQ(doctor.Err(), "");
}

}  // namespace
}  // namespace kvox
