#include "meter/plain_text_receipt.h"

#include <fmt/format.h>

#include <vector>

#include "transcript/text.h"

namespace ostler {
namespace {

int64_t length(std::string_view s) { return text::characterCount(s); }

class Lines {
 public:
  void add(std::string line) { lines_.push_back(std::move(line)); }
  void blank() { lines_.emplace_back(); }
  void row(std::string_view label, std::string_view value) { add(ostler::row(label, value, kReceiptWidth)); }
  void rowUSD(std::string_view label, double usd) { row(label, dollars(usd)); }
  std::string join() const {
    std::string out;
    for (size_t i = 0; i < lines_.size(); ++i) {
      if (i > 0) out.push_back('\n');
      out += lines_[i];
    }
    return out;
  }

 private:
  std::vector<std::string> lines_;
};

void categoryBlock(Lines& out, const ReceiptCategory& c) {
  out.rowUSD(c.label, c.usd);
  for (size_t i = 0; i < c.detail_lines.size() && i < 3; ++i)
    out.rowUSD("  " + c.detail_lines[i].text, c.detail_lines[i].usd);
  if (c.detail_lines.size() > 3) out.add(fmt::format("  + {} more", c.detail_lines.size() - 3));
}

}  // namespace

std::string dollars(double usd) { return fmt::format("${:.2f}", usd); }

std::string center(std::string_view text, int width) {
  int64_t len = length(text);
  if (len >= width) return std::string(text);
  int64_t pad = width - len;
  return std::string(static_cast<size_t>(pad / 2), ' ') + std::string(text) +
         std::string(static_cast<size_t>(pad - pad / 2), ' ');
}

std::string row(std::string_view label, std::string_view value, int width) {
  const int64_t valueLength = length(value);
  const int64_t room = std::max<int64_t>(0, width - valueLength - 1);
  std::string_view cut = label;
  if (length(label) > room) cut = text::prefixCharacters(label, room);
  const int64_t dots = std::max<int64_t>(1, width - length(cut) - valueLength);
  return std::string(cut) + std::string(static_cast<size_t>(dots), '.') + std::string(value);
}

std::string renderPlainTextReceipt(const Receipt& r) {
  Lines out;
  const std::string rule(kReceiptWidth, '=');
  out.add(rule);
  out.add(center("OSTLER RECEIPT", kReceiptWidth));
  out.add(rule);
  out.add(fmt::format("Period {} to {}", r.period.from, r.period.to));
  out.add(fmt::format("Generated {}", r.generated_at));
  out.blank();

  out.add("TOTALS");
  out.row("Turns", std::to_string(r.totals.turns));
  out.row("Sessions", std::to_string(r.totals.sessions));
  out.row("Projects", std::to_string(r.totals.projects));
  out.rowUSD("Spent", r.totals.spent_usd);
  out.row("Input tokens", std::to_string(r.totals.tokens.input));
  out.row("Output tokens", std::to_string(r.totals.tokens.output));
  out.row("Cache read tokens", std::to_string(r.totals.tokens.cache_read));
  out.row("Cache write tokens", std::to_string(r.totals.tokens.cache_write));
  out.blank();

  out.add("SPEND BY MODEL");
  for (const auto& m : r.by_model) out.rowUSD(m.model, m.spent_usd);
  if (r.by_model.empty()) out.add("  none");
  out.blank();

  out.add("WASTE, ITEMIZED");
  for (const auto& c : r.waste.categories) categoryBlock(out, c);
  if (!r.waste.overlap_note.empty()) out.add("note: " + r.waste.overlap_note);
  out.blank();

  out.add("IF YOUR MAC LOOKED FIRST");
  for (const auto& c : r.mac_first.categories) categoryBlock(out, c);
  if (!r.mac_first.media_loops.loops.empty()) {
    const auto& loop = r.mac_first.media_loops.loops.front();
    out.rowUSD(fmt::format("  subset: {} loop, {} img", loop.project, loop.images), loop.usd);
  }
  out.blank();

  const auto& d = r.waste.diagnostics_raw_usd;
  const double yourNumber = r.waste.total_usd + r.mac_first.total_usd;
  const double rawAll = d.overweight + d.duplicate_reads + d.oversized_dumps + d.cache_expiry + d.media_reads +
                        d.repeat_pipelines + d.downshift;
  if (yourNumber < rawAll) out.rowUSD("raw estimate, all 7 (uncapped)", rawAll);
  if (d.w1_composition.input_usd + d.w1_composition.cache_write_usd > 0)
    out.add(fmt::format("  W1 split: in {} write {}", dollars(d.w1_composition.input_usd),
                        dollars(d.w1_composition.cache_write_usd)));
  if (d.carried_context_read_usd > 0) out.rowUSD("  carried context (cache reads)", d.carried_context_read_usd);
  if (d.carried_duplicates_read_usd > 0)
    out.rowUSD("  carried duplicates (cache reads)", d.carried_duplicates_read_usd);
  if (d.carried_dumps_read_usd > 0) out.rowUSD("  carried dumps (cache reads)", d.carried_dumps_read_usd);
  out.blank();

  out.add(std::string(kReceiptWidth, '-'));
  out.rowUSD("YOUR NUMBER", yourNumber);
  out.add("spend a machine could have avoided");
  out.add("(estimated, waste + mac-first combined)");
  out.blank();

  bool printedDownshift = false;
  if (d.dispatch_downshift_usd > 0) {
    out.rowUSD("counterfactual: dispatch on sonnet", d.dispatch_downshift_usd);
    out.add(fmt::format("{} dispatches, {} spend (not in the number above)", d.dispatch_downshift_units,
                        dollars(d.dispatch_downshift_spend_usd)));
    printedDownshift = true;
  }
  if (d.whole_session_downshift_usd > 0) {
    out.rowUSD("  sessions never downshifted whole", d.whole_session_downshift_usd);
    out.add("  see dispatch_downshift_usd above");
    printedDownshift = true;
  }
  if (printedDownshift) out.blank();

  out.rowUSD("FAIR FRONTIER WORK", r.fair_usd);
  out.add("worth every cent");
  out.blank();

  if (r.typed_share) {
    const auto& t = *r.typed_share;
    out.rowUSD("your own words", t.floor_usd);
    out.add(fmt::format("of {} spent ({:.2f}%)", dollars(t.base_usd), t.faced_share_percent));
    out.add(fmt::format("floor excludes {} pastes over 2k bytes;", t.paste_count));
    out.add(fmt::format("ceiling {} counts them; each", dollars(t.ceiling_usd)));
    out.add("word priced once, at its turn's entry rate");
    if (t.synthetic_zeroed_count >= 1)
      out.add(fmt::format("{} messages priced at $0 (entered a synthetic turn, safe direction)",
                          t.synthetic_zeroed_count));
    out.blank();
  }

  if (r.switch_tax && r.switch_tax->floor_usd > 0) {
    const auto& s = *r.switch_tax;
    out.rowUSD("  switch tax (floor)", s.floor_usd);
    out.add(fmt::format("  {} model switches, {} sessions", s.switch_count, s.session_count));
    if (s.counterfactual_usd > 0) {
      out.rowUSD("  counting the full cache re-write", s.counterfactual_usd);
      out.add("  premium (upper counterfactual)");
    }
    out.blank();
  }

  if (r.auto_compactions && r.auto_compactions->event_count >= 1) {
    const auto& a = *r.auto_compactions;
    out.add("AUTO-COMPACTIONS (ESTIMATE, NEVER THE STAMP)");
    out.rowUSD("  primary estimate", a.primary_usd);
    out.rowUSD("  alternate bound", a.bound_usd);
    out.add(fmt::format("  {} events, {} involuntary, {} voluntary", a.event_count, a.involuntary_count,
                        a.voluntary_count));
    out.blank();
  }

  if (!r.top_sessions.empty()) {
    out.add("TOP SESSIONS");
    for (size_t i = 0; i < r.top_sessions.size() && i < 5; ++i) {
      const auto& s = r.top_sessions[i];
      out.rowUSD(fmt::format("{} {}", s.project, text::prefixCharacters(s.sessionId, 8)), s.spent_usd);
    }
    out.blank();
  }

  const auto& f = r.flags;
  if (!f.unknown_models.empty()) {
    out.add("Unknown models priced at opus rate:");
    for (const auto& m : f.unknown_models) out.add("  " + m);
  }
  if (f.skipped_lines > 0) out.add(fmt::format("Skipped unparseable lines: {}", f.skipped_lines));
  out.add(fmt::format("Sessions: {} files, {} distinct ids", f.distinct_files, f.distinct_session_ids));
  out.add(fmt::format("Turns per session: p50 {}, p95 {}, max {}", f.turns_per_session_p50, f.turns_per_session_p95,
                      f.turns_per_session_max));
  if (f.subagent_files > 0)
    out.add(fmt::format("Subagents: {} files, {} turns folded into parent sessions", f.subagent_files,
                        f.subagent_turns));
  out.add(f.pricing_note);
  out.add("all estimates labeled as estimates");
  out.add("nothing left your Mac");
  return out.join();
}

}  // namespace ostler
