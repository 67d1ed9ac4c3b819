// The card classes: typed views over the server search service's display
// dictionaries, one class per kind of card, section or part.
//
// Every class and every accessor is generated from the tables below, so a
// property is named exactly once. An accessor reads the property's key from
// the wrapped dictionary and converts it by its kind (KXProxyObject.h): a
// value of another kind reads as absent, and numbers follow the delivered-
// number rule. Objects of another card class are made on each read from
// the stored dictionary.
//
// Kinds: String, URL, Image (opaque kx::Value), Array, Boolean, Integer
// (64-bit), Double, and App, ActionButton, AuxiliaryInfo, AlignmentSchema,
// MetaResult for nested card objects.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "kx/KXProxyObject.h"
#include "kx/export.h"

class KXApp;
class KXActionButton;
class KXAuxiliaryInfo;
class KXAlignmentSchema;
class KXMetaSchema;

namespace kx::vantle {
// Nested card objects: a stored dictionary viewed as the class, or a stored
// object of that class itself; absent otherwise.
KX_EXPORT std::shared_ptr<KXApp> AsApp(const Value& v);
KX_EXPORT std::shared_ptr<KXActionButton> AsActionButton(const Value& v);
KX_EXPORT std::shared_ptr<KXAuxiliaryInfo> AsAuxiliaryInfo(const Value& v);
KX_EXPORT std::shared_ptr<KXAlignmentSchema> AsAlignmentSchema(const Value& v);
KX_EXPORT std::shared_ptr<KXMetaSchema> AsMetaResult(const Value& v);
}  // namespace kx::vantle

// Return types of the accessors, by kind.
#define KX_VANTLE_TYPE_String std::optional<std::string>
#define KX_VANTLE_TYPE_URL std::optional<kx::URL>
#define KX_VANTLE_TYPE_Image kx::Value
#define KX_VANTLE_TYPE_Array std::optional<kx::Array>
#define KX_VANTLE_TYPE_Data std::optional<kx::Value::Bytes>
#define KX_VANTLE_TYPE_Boolean std::optional<bool>
#define KX_VANTLE_TYPE_Integer std::optional<int64_t>
#define KX_VANTLE_TYPE_UInt64 std::optional<uint64_t>
#define KX_VANTLE_TYPE_UInt32 std::optional<uint32_t>
#define KX_VANTLE_TYPE_Double std::optional<double>
#define KX_VANTLE_TYPE_Float std::optional<float>
#define KX_VANTLE_TYPE_App std::shared_ptr<KXApp>
#define KX_VANTLE_TYPE_ActionButton std::shared_ptr<KXActionButton>
#define KX_VANTLE_TYPE_AuxiliaryInfo std::shared_ptr<KXAuxiliaryInfo>
#define KX_VANTLE_TYPE_AlignmentSchema std::shared_ptr<KXAlignmentSchema>
#define KX_VANTLE_TYPE_MetaResult std::shared_ptr<KXMetaSchema>

// One typed accessor reading `name` from valueForUndefinedKey.
#define KX_VANTLE_ACCESSOR(name, kind) \
  KX_VANTLE_TYPE_##kind name() const { return ::kx::vantle::As##kind(valueForUndefinedKey(#name)); }

// --- The property tables: P(name, kind), the properties each class adds ----
#define KX_PROPS_KXApp(P) \
  P(name, String) P(bundle_id, String) P(install_url, URL) P(label, String) P(punchout_uri, URL)
#define KX_PROPS_KXActionButton(P)                                                        \
  P(provider, String) P(is_overlay, Boolean) P(type, String) P(label, String)             \
  P(label_sonarc, String) P(adam_ids, Array) P(streaming, Boolean) P(punchout, App)
#define KX_PROPS_KXAuxiliaryInfo(P) \
  P(top_text, String) P(middle_text, String) P(bottom_text, String) P(bottom_text_color, String)
#define KX_PROPS_KXMetaSchema(P) P(type, String)
#define KX_PROPS_KXAlignmentSchema(P) \
  P(column_align, Array) P(within_column_align, Array) P(equal_width, Array) P(meta, MetaResult)
#define KX_PROPS_KXSection(P)                                                              \
  P(type, String) P(url, URL) P(attribution_url, URL) P(hide_divider, Boolean)             \
  P(card_padding_bottom, Boolean) P(card_padding_top, Boolean)
#define KX_PROPS_KXTitleSection(P) P(title, String)
#define KX_PROPS_KXRichTitleSection(P)                                                     \
  P(subtitle, String) P(image, Image) P(title_align, String) P(content_rating_text, String) \
  P(thumbnail_crop_circle, Boolean)
#define KX_PROPS_KXDescriptionSection(P)                                                   \
  P(title, String) P(title_nowrap, Boolean) P(title_weight, Integer)                       \
  P(resultDescription, String) P(description_maxlines, Integer)                            \
  P(description_expand, Boolean) P(description_expand_text, String)                        \
  P(description_size, Integer) P(description_weight, Integer) P(image, Image)              \
  P(image_align, String)
#define KX_PROPS_KXRowSection(P)                                                           \
  P(key, String) P(key_nowrap, Boolean) P(key_weight, Integer) P(value, String)            \
  P(value_nowrap, Boolean) P(value_weight, Integer) P(value_image, Image)                  \
  P(value_image_align, String) P(punchout_picker_label, String)                            \
  P(punchout_picker_dismiss_label, String) P(punchouts, Array)
#define KX_PROPS_KXMovieInfoSection(P)                                                     \
  P(rt_text, String) P(rt_glyph, Image) P(image, Image) P(buy_button_sections, Array)      \
  P(sections, Array) P(action_button, ActionButton)
#define KX_PROPS_KXTrailersSection(P) P(title, String) P(trailer_sections, Array)
#define KX_PROPS_KXMovieListSection(P) P(title, String) P(subtitle, String) P(movies, Array)
#define KX_PROPS_KXTwitterSection(P)                                                       \
  P(title, String) P(subtitle, String) P(thumbnail, Image) P(image, Image)                 \
  P(title_glyph, Image) P(formatted_text, Array) P(formatted_text_delimiter, String)        \
  P(date, String) P(footnote, String)
#define KX_PROPS_KXTableRowSection(P)                                                      \
  P(table_id, String) P(tab_group_id, String) P(alignment_schema, AlignmentSchema)         \
  P(row_type, Integer) P(value, Array)
#define KX_PROPS_KXDataSection(P) \
  P(keys, Array) P(values, Array) P(image, Image) P(image_align, String) P(data_align, String)
#define KX_PROPS_KXSportsSummaryScoreSection(P) \
  P(title, String) P(sub_title, String) P(images, Array)
#define KX_PROPS_KXMovieInfoDetails(P) \
  P(title, String) P(resultDescription, String) P(description_maxlines, Integer)
#define KX_PROPS_KXBuyButton(P) \
  P(url, URL) P(title, String) P(subtitle, String) P(adam_id, String) P(offer_type, String)
#define KX_PROPS_KXTrailer(P) P(caption, String) P(trailer_url, URL) P(image, Image)
#define KX_PROPS_KXLabeledImage(P) P(image, Image) P(label, String) P(align, String)
#define KX_PROPS_KXMovie(P)                                                                \
  P(image, Image) P(title, String) P(subtitle, String) P(rt_glyph, Image) P(rt_text, String) \
  P(more_glyphs, Array) P(url, URL) P(punchout_uri, URL)
#define KX_PROPS_KXRichText(P)                                                             \
  P(formatted_text, Array) P(star_rating, Double) P(more_glyphs, Array)                    \
  P(content_advisory, String) P(formatted_text_delimiter, String) P(text_maxlines, Integer)
#define KX_PROPS_KXTextMarkup(P) \
  P(text, String) P(emphasized, Boolean) P(bold, Boolean) P(inlineGlyph, Image)

// --- The class table: C(Class, Base), bases before the classes using them --
#define KX_CARD_CLASSES(C)                                                                 \
  C(KXApp, KXProxyObject) C(KXAuxiliaryInfo, KXProxyObject) C(KXMetaSchema, KXProxyObject) \
  C(KXAlignmentSchema, KXProxyObject) C(KXSection, KXProxyObject)                          \
  C(KXTitleSection, KXSection) C(KXRichTitleSection, KXTitleSection)                       \
  C(KXDescriptionSection, KXSection) C(KXRowSection, KXSection)                            \
  C(KXMovieInfoSection, KXSection) C(KXTrailersSection, KXSection)                         \
  C(KXMovieListSection, KXSection) C(KXTwitterSection, KXSection)                          \
  C(KXTableRowSection, KXSection) C(KXDataSection, KXSection)                              \
  C(KXSportsSummaryScoreSection, KXSection) C(KXMovieInfoDetails, KXProxyObject)           \
  C(KXBuyButton, KXProxyObject) C(KXTrailer, KXProxyObject)                                \
  C(KXLabeledImage, KXProxyObject) C(KXMovie, KXProxyObject)                               \
  C(KXRichText, KXProxyObject) C(KXTextMarkup, KXProxyObject)

#define KX_CARD_CLASS_BODY(Class, Base)                                                 \
 public:                                                                                \
  using Base::Base;                                                                     \
  static std::shared_ptr<Class> proxyObjectWithDictionary(kx::Dictionary dictionary) {  \
    return std::make_shared<Class>(std::move(dictionary));                              \
  }                                                                                     \
  std::string className() const override { return #Class; }                             \
  KX_PROPS_##Class(KX_VANTLE_ACCESSOR)

#define KX_DECLARE_CARD_CLASS(Class, Base) \
  class KX_EXPORT Class : public Base {    \
    KX_CARD_CLASS_BODY(Class, Base)        \
  };
KX_CARD_CLASSES(KX_DECLARE_CARD_CLASS)
#undef KX_DECLARE_CARD_CLASS

// The one card class with real storage: the contact the button acts for,
// set by the application, read and written atomically.
class KX_EXPORT KXActionButton : public KXProxyObject {
  KX_CARD_CLASS_BODY(KXActionButton, KXProxyObject)

 public:
  std::optional<std::string> contactIdentifier() const {
    std::lock_guard lock(contactMu_);
    return contactIdentifier_;
  }
  void setContactIdentifier(std::optional<std::string> identifier) {
    std::lock_guard lock(contactMu_);
    contactIdentifier_ = std::move(identifier);
  }

 private:
  mutable std::mutex contactMu_;
  std::optional<std::string> contactIdentifier_;
};
