/* Placeholder translation unit for a platform library that has no code yet. */
typedef int mixer_platform_placeholder;
