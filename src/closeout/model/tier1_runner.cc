#include "closeout/model/tier1_runner.h"

#include <algorithm>

#include "closeout/model/local_model_runner.h"
#include "closeout/model/local_model_settings.h"
#include "platform/process.h"
#include "transcript/text.h"

namespace ostler {

int64_t Tier1Tokens::estimate(std::string_view text) { return std::max<int64_t>(text::characterCount(text) / 4, 1); }

Result<std::unique_ptr<Tier1Runner>> Tier1RunnerFactory::runnerFromSettings(FileSystem& fs,
                                                                            const std::string& settingsPath) {
  const LocalModelSettings settings = LocalModelSettings::read(fs, settingsPath);
  if (!settings.configured()) return std::unique_ptr<Tier1Runner>();
  Result<std::unique_ptr<LocalModelRunner>> runner = LocalModelRunner::create(settings);
  if (!runner.ok()) return runner.error();
  return std::unique_ptr<Tier1Runner>(std::move(runner).value());
}

std::unique_ptr<Tier1Runner> Tier1RunnerFactory::systemRunner() {
  const std::string path =
      LocalModelSettings::defaultPath(environmentVariable("HOME").value_or(""), environmentVariable("XDG_CONFIG_HOME"));
  Result<std::unique_ptr<Tier1Runner>> runner = runnerFromSettings(systemFileSystem(), path);
  return runner.ok() ? std::move(runner).value() : nullptr;
}

}  // namespace ostler
