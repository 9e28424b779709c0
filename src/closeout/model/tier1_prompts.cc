#include "closeout/model/tier1_prompts.h"

#include <string>

namespace ostler::Tier1Prompts {

std::string summarizeChunk(std::string_view text) {
  std::string prompt =
      "Summarize the following excerpt of a coding session transcript in two or three sentences, "
      "noting what was done, what was decided, and any file paths you see mentioned as touched:\n\n";
  prompt.append(text);
  return prompt;
}

std::string combineBatch(const std::vector<std::string>& summaries) {
  std::string prompt = "Combine the following ";
  prompt += std::to_string(summaries.size());
  prompt +=
      " summaries of consecutive parts of a coding session "
      "transcript into ONE shorter summary, preserving key state, decisions, and any file paths "
      "mentioned as touched:\n\n";
  for (size_t i = 0; i < summaries.size(); ++i) {
    if (i > 0) prompt += '\n';
    prompt += "Summary " + std::to_string(i + 1) + ": ";
    prompt += summaries[i];
  }
  return prompt;
}

std::string generateHandoff(std::string_view combinedSummary) {
  std::string prompt =
      "You are closing out a coding session so a fresh chat can resume it without re-reading everything.\n"
      "Below is a combined summary of the session transcript. It may mention files that were touched\n"
      "(edited or written) -- this is the only source for FILES TOUCHED, there is no other list.\n\n"
      "Combined summary:\n";
  prompt.append(combinedSummary);
  prompt +=
      "\n\nProduce a detailed, thorough handoff, not a brief one: STATE (what has been done, at least five\n"
      "sentences), DECISIONS (what was decided and why, at least five sentences), NEXT (what a fresh chat\n"
      "should do next, at least five sentences), and FILES TOUCHED (every distinct file path mentioned above,\n"
      "each on its own bullet line starting with \"- \", most-frequently-mentioned first -- never comma-joined\n"
      "on one line, never annotated with counts). Also propose any documentation updates this session's\n"
      "decisions suggest (may be empty).";
  return prompt;
}

}  // namespace ostler::Tier1Prompts
