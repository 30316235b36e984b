/* The issue-tracker composer framework "LarkinCompose", as seen from its users.
 * A plain C interface: the framework is loaded at run time by name, so nothing of
 * it may depend on the C++ library of the process that loads it.
 *
 * It exports two symbols:
 *   LarkinTicket  the report class: a LarkinTicketClass describing how to make,
 *                 fill and release reports;
 *   get_notifier  a function answering the notifier, or NULL when none can be had.
 * Strings are UTF-8 and copied by the framework; a NULL object is ignored by every
 * operation, as a message to nil is. */
#ifndef JOULIX_PLATFORM_LARKINCOMPOSE_H
#define JOULIX_PLATFORM_LARKINCOMPOSE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct LarkinTicketObject LarkinTicketObject;

typedef struct LarkinTicketClass {
    LarkinTicketObject* (*create)(void);
    void (*release)(LarkinTicketObject* ticket);
    void (*setTitle)(LarkinTicketObject* ticket, const char* title);
    void (*setComponent)(LarkinTicketObject* ticket, const char* component);
    void (*setComponentVersion)(LarkinTicketObject* ticket, const char* version);
    void (*setClassification)(LarkinTicketObject* ticket, long classification);
    void (*setReproducibility)(LarkinTicketObject* ticket, long reproducibility);
    void (*setDescription)(LarkinTicketObject* ticket, const char* description);
    void (*setKeywords)(LarkinTicketObject* ticket, const char* const* keywords, size_t count);
} LarkinTicketClass;

typedef struct LarkinNotifier LarkinNotifier;
struct LarkinNotifier {
    /* Puts the report in front of the user; nonzero when it was accepted. */
    int (*notifyWithLarkin)(LarkinNotifier* self, const LarkinTicketObject* ticket);
};

typedef LarkinNotifier* (*LarkinGetNotifierFunction)(void);

#ifdef __cplusplus
}
#endif

#endif
