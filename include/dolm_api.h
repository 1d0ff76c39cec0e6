/* DOLM_API marks what the shared library exports; everything else in it is hidden. */
#ifndef DOLM_API_H
#define DOLM_API_H

#define DOLM_API __attribute__((visibility("default")))

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
