/* What the inspection of the module must find: vectors that are moved to the stack as if the stack
   were aligned to 32 or 64 bytes. The system's compiler has learnt to avoid it, others haven't. */

	.text
	.globl acrossACall
acrossACall:
	subq $72, %rsp
	vmovups (%rcx), %ymm0
	vmovaps %ymm0, 32(%rsp)
	call acrossACall
	vmovaps 32(%rsp), %ymm0
	vmovdqa64 (%rsp), %zmm0
	addq $72, %rsp
	ret
