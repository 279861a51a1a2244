// Language set-up for the texts that reach an operator through event reports.
//
// The five event texts that are translated go through the GNU gettext catalogue of the domain
// "vdsprovider", found in the folder "locale" beside the service. Everything else, the debug log
// above all, stays in English.
#pragma once

#include <cstddef>

// The text domain of the provider's catalogue.
extern const char kTextDomain[];  // "vdsprovider"

// The service's folder, with its trailing separator, from the value PATH of the Parameters key;
// the file system's root when the value is missing, too long for the buffer, or names no folder.
// Writes at most size-1 characters and a NUL.
void GetServicePath(char* buffer, size_t size);

// Sets the locale from the environment and binds the catalogue folder; logs each step.
void LangInit();

// The catalogue's translation of an event text, or the text itself when there is none.
const char* TranslateEventText(const char* text);
