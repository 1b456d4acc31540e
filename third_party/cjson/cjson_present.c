/* Stops the build of libtavrend_cjson, with what to do, while cJSON's two
 * sources are not beside Android.bp; compiles to nothing once they are. */
#if !__has_include("cjson/cJSON.h") || !__has_include("cjson/cJSON.c")
#error "cJSON 1.7.15 is missing: put its cJSON.c and cJSON.h in third_party/cjson/cjson/ (README, 'In a platform tree')"
#endif
typedef int tavrend_cjson_present;
