#include "support/substitute_tier1_runner.h"

#include <algorithm>

#include "closeout/word_split.h"

namespace ostler::testing {
namespace {

// The distinct "[file touched: PATH]" markers of `text`, in order.
std::vector<std::string> fileMarkers(std::string_view text) {
  static constexpr std::string_view kOpen = "[file touched: ";
  std::vector<std::string> out;
  for (size_t at = text.find(kOpen); at != std::string_view::npos; at = text.find(kOpen, at + 1)) {
    const size_t end = text.find(']', at);
    if (end == std::string_view::npos) break;
    std::string marker(text.substr(at, end + 1 - at));
    if (std::find(out.begin(), out.end(), marker) == out.end()) out.push_back(std::move(marker));
  }
  return out;
}

std::string withMarkers(std::string head, std::string_view text) {
  for (const std::string& m : fileMarkers(text)) head += " " + m;
  return head;
}

}  // namespace

int64_t SubstituteTier1Runner::measureTokens(std::string_view text) {
  return std::max<int64_t>(WordSplit::wordCount(text), 1);
}

template <typename T>
std::optional<ChunkAttemptOutcome<T>> SubstituteTier1Runner::failureFor(std::string_view call, std::string_view text) {
  {
    const std::lock_guard lock(mutex_);
    calls_.emplace_back(call);
  }
  if (measureTokens(text) > options_.tokenBound) return ChunkAttemptOutcome<T>::tooLarge();
  if (text.find(kRefuseMarker) != std::string_view::npos) {
    return ChunkAttemptOutcome<T>::otherFailure(std::string(kRefusalReason));
  }
  if (text.find(kFailMarker) != std::string_view::npos) {
    return ChunkAttemptOutcome<T>::otherFailure("the substitute failed");
  }
  return std::nullopt;
}

ChunkAttemptOutcome<std::string> SubstituteTier1Runner::summarizeChunk(std::string_view text) {
  if (auto failed = failureFor<std::string>("summarize", text)) return *failed;
  return ChunkAttemptOutcome<std::string>::success(
      withMarkers("summary of " + std::to_string(WordSplit::wordCount(text)) + " words.", text));
}

ChunkAttemptOutcome<std::string> SubstituteTier1Runner::combineBatch(const std::vector<std::string>& summaries) {
  if (summaries.size() == 1) return ChunkAttemptOutcome<std::string>::success(summaries.front());
  std::string joined;
  for (const std::string& s : summaries) joined += s + "\n";
  if (auto failed = failureFor<std::string>("combine", joined)) return *failed;
  return ChunkAttemptOutcome<std::string>::success(
      withMarkers("combined " + std::to_string(summaries.size()) + " summaries.", joined));
}

ChunkAttemptOutcome<GeneratedHandoffResult> SubstituteTier1Runner::generateHandoff(std::string_view combinedSummary) {
  if (auto failed = failureFor<GeneratedHandoffResult>("handoff", combinedSummary)) return *failed;
  GeneratedHandoffResult handoff;
  handoff.state = "State of a chat summarised in " + std::to_string(WordSplit::wordCount(combinedSummary)) + " words.";
  handoff.decisions = "Decisions were made.";
  handoff.next = "Carry on.";
  for (const std::string& marker : fileMarkers(combinedSummary)) {
    if (!handoff.filesTouched.empty()) handoff.filesTouched += "\n";
    handoff.filesTouched += "- " + marker.substr(15, marker.size() - 16);
  }
  return ChunkAttemptOutcome<GeneratedHandoffResult>::success(std::move(handoff));
}

std::vector<std::string> SubstituteTier1Runner::calls() {
  const std::lock_guard lock(mutex_);
  return calls_;
}

}  // namespace ostler::testing
