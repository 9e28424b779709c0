#include "closeout/closeout_failure_kind.h"

namespace ostler::CloseoutFailure {

std::string_view name(CloseoutFailureKind kind) {
  switch (kind) {
    case CloseoutFailureKind::kRefusal: return "refusal";
    case CloseoutFailureKind::kExceededContextWindowSizeAtFloor: return "exceededContextWindowSizeAtFloor";
    case CloseoutFailureKind::kOther: break;
  }
  return "other";
}

std::optional<CloseoutFailureKind> parse(std::string_view name) {
  for (CloseoutFailureKind kind : {CloseoutFailureKind::kRefusal,
                                   CloseoutFailureKind::kExceededContextWindowSizeAtFloor, CloseoutFailureKind::kOther})
    if (CloseoutFailure::name(kind) == name) return kind;
  return std::nullopt;
}

CloseoutFailureKind classify(std::string_view reason) {
  if (reason == "refusal") return CloseoutFailureKind::kRefusal;
  if (reason.starts_with("exceededContextWindowSize")) return CloseoutFailureKind::kExceededContextWindowSizeAtFloor;
  return CloseoutFailureKind::kOther;
}

}  // namespace ostler::CloseoutFailure
