/* DOLM_API marks what the shared library exports; everything else in it is hidden. A DLL exports
 * what its module definition lists, the same symbols. */
#ifndef DOLM_API_H
#define DOLM_API_H

#ifdef _WIN32
#define DOLM_API
#else
#define DOLM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
#define DOLM_EXTERN_C_BEGIN extern "C" {
#define DOLM_EXTERN_C_END }
#else
#define DOLM_EXTERN_C_BEGIN
#define DOLM_EXTERN_C_END
#endif

/* An enumeration of fixed width: DOLM_ENUM(name, type) { enumerators }; */
#ifdef __cplusplus
#define DOLM_ENUM(name, type) enum name : type
#else
#define DOLM_ENUM(name, type)                                                                      \
    typedef type name;                                                                             \
    enum
#endif

#endif
