/* The weight block, taken as it is from weights.bin, or from the file that the build names instead. */

#if defined(_WIN32)
	.section .rdata, "dr"
#else
	.section .rodata, "a", @progbits
#endif
	.globl tavroModelWeights
#if !defined(_WIN32)
	.hidden tavroModelWeights
	.type tavroModelWeights, @object
#endif
	.balign 128
tavroModelWeights:
	.incbin TAVRO_WEIGHTS_PATH
#if !defined(_WIN32)
	.size tavroModelWeights, . - tavroModelWeights

	.section .note.GNU-stack, "", @progbits
#endif
