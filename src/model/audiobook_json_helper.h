// Builds an audiobook record and its chapter records from a metadata document (the value of
// "audiobook" in the content API's answer). Reading is tolerant: every field has a default, so any
// document builds a record. Used on the thread that owns the context (the object store's lock, or
// the caller's own thread with a QSODetachedContext); the helper itself is not synchronised.
//
// Per-chapter expected sizes are not made here: they belong to the status records that the
// metadata fetch writes, from "actual_size" and the chapters' "duration".
#pragma once

#include <memory>
#include <string>

#include "model/object_context.h"
#include "sonorell/audiobook.h"
#include "sonorell/value.h"

namespace sonorell {

class QSOAudiobookJSONHelper {
 public:
  // Keeps the document and, weakly, the context: the helper must not outlive the context that
  // owns the records it makes.
  QSOAudiobookJSONHelper(Dictionary jsonDictionary, std::weak_ptr<QSOObjectContext> context);
  static std::shared_ptr<QSOAudiobookJSONHelper> initWithDictionary(
      Dictionary jsonDictionary, std::weak_ptr<QSOObjectContext> context);

  // Sets every property of `audiobook` from the document, in the record's documented order,
  // then inserts one chapter record per element of "chapters".
  void populateAudiobook(const std::shared_ptr<QSOAudiobookInterface>& audiobook);
  // Inserts a "QSOChapter" record into the context for each element, in order (duplicates
  // kept), links it to `audiobook` both ways. Logs and makes nothing when the context is gone.
  void setChapters(const Array& chapters, const std::shared_ptr<QSOAudiobookInterface>& audiobook);
  // The document's "title" as a string ("" when missing or not a string).
  std::string getTitle() const;

  const Dictionary& jsonDictionary() const { return jsonDictionary_; }
  void setJsonDictionary(Dictionary jsonDictionary) { jsonDictionary_ = std::move(jsonDictionary); }
  std::weak_ptr<QSOObjectContext> context() const { return context_; }
  void setContext(std::weak_ptr<QSOObjectContext> context) { context_ = std::move(context); }

  // The whole build without a store: a detached record (QSOConcreteAudiobook with
  // QSOConcreteChapter records) for a document.
  static std::shared_ptr<QSOAudiobookInterface> detachedAudiobookFromDictionary(
      const Dictionary& jsonDictionary);

 private:
  Dictionary jsonDictionary_;
  std::weak_ptr<QSOObjectContext> context_;
};

}  // namespace sonorell
