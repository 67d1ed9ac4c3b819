// KXServerResult: the typed view of the server search service's properties
// of a KXSearchResult, which live in its additional-property dictionary.
//
// Generated from one table like the card classes (KXCardClasses.h), with the
// same conversions and number rule. Properties the result keeps in real
// fields (score, isQuickGlance, resultBundleID, title, resultScore, the
// geo-session fields, resultURL) are read from the result itself and have
// no accessor here.
//
// The view borrows the result: it must not outlive it. Writing goes through
// KXSearchResult::setValue, which stores under the undefined key, or through
// the key-based path below.
#pragma once

#include "kx/KXCardClasses.h"
#include "kx/KXSearchResult.h"
#include "kx/export.h"

// P(name, kind), grouped by the server interface that declares them; a
// property two interfaces share is listed once.
#define KX_PROPS_KXServerResult(P)                                                         \
  /* base result */                                                                        \
  P(type, String) P(rank, UInt64) P(topHitScore, Integer) P(placement, Integer)            \
  P(resultIdentifier, String) P(media_kind, Integer) P(adam_id, String)                    \
  P(playable, Boolean) P(fbr, String) P(max_age, Integer) P(bundle_id, String) P(app, App) \
  P(templateName, String) P(section_header, String)                                        \
  /* generic result */                                                                     \
  P(descriptions, Array) P(thumbnail, Image) P(thumbnail_crop_circle, Boolean)             \
  P(title_maxlines, Integer) P(secondary_title, String) P(secondary_title_detached, Boolean) \
  P(thumbnail_align_right, Boolean) P(secondary_image, Image) P(footnote, String)          \
  P(auxiliary_info, AuxiliaryInfo) P(action_button, ActionButton) P(card_title, String)    \
  P(card_url, URL) P(card_sections, Array) P(row_sections, Array)                          \
  /* simple result */                                                                      \
  P(title_size, Integer) P(description_maxlines, Integer) P(description_size, Integer)     \
  P(footnote_maxlines, Integer) P(footnote_size, Integer) P(title_glyph, Image)            \
  P(resultDescription, String) P(description_nowrap, Boolean) P(footnote_nowrap, Boolean)  \
  P(icon, Image) P(more_icons, Array)                                                      \
  /* rich result */                                                                        \
  P(rt_glyph, Image) P(rt_text, String) P(rt_newline, Boolean) P(rating, Float)            \
  P(rating_text, String) P(more_glyphs, Array) P(string_format, String)                    \
  /* maps result */                                                                        \
  P(maps_data, Data) P(maps_data_type, String) P(maps_result_type, String) P(more, String)  \
  P(more_url, URL)

// The key-based path for a result's server properties: a getter returns the
// delivered value of the key; a setter ("setTitle_maxlines:" stores
// "title_maxlines") stores `argument` in the additional properties and
// returns nil.
KX_EXPORT kx::Value KXForwardPropertyCall(KXSearchResult& result, std::string_view operationName,
                                          const kx::Value& argument = {});

class KX_EXPORT KXServerResult {
 public:
  explicit KXServerResult(const KXSearchResult& result) : result_(result) {}

  kx::Value valueForUndefinedKey(std::string_view key) const {
    return result_.valueForUndefinedKey(key);
  }

  KX_PROPS_KXServerResult(KX_VANTLE_ACCESSOR)

 private:
  const KXSearchResult& result_;
};
