"""The sample papers a fresh library starts with.

All of them were written for this project: the people, results, venues and
cited works are invented. They exist so that a new installation has real,
searchable, quotable text to try Orvane on, with ids in both styles (with
and without a slash).
"""

from __future__ import annotations

SAMPLE_PAPERS: list[dict] = [
    {
        "id": "2401.01234",
        "title": "Sparse Attention Budgets for Long-Document Retrieval",
        "authors": ["Mira Castellanos", "Tobias Ferreira-Lund", "Anika Rao"],
        "year": 2024,
        "venue": "Workshop on Efficient Retrieval",
        "abstract": (
            "Dense retrievers that read whole documents spend most of their attention on passages "
            "that never influence the final score. We propose attention budgets: a fixed number of "
            "key positions per query that a cheap scorer selects before the expensive encoder runs. "
            "On three long-document collections, a budget of 12 percent of the tokens keeps 97 "
            "percent of the retrieval quality of full attention while cutting encoder time by a "
            "factor of 4.1. We also show that the selected positions are stable across paraphrased "
            "queries, which makes budgets cacheable, and we describe two failure cases in which "
            "the cheap scorer misses tables and numbered lists."
        ),
        "sections": [
            {
                "heading": "Introduction",
                "paragraphs": [
                    "Long documents are the ordinary case in scholarly search: a paper runs to twenty "
                    "pages, a thesis to two hundred. Retrieval models, however, are usually trained and "
                    "evaluated on passages of a few hundred tokens. When such a model is asked to score a "
                    "whole document it either truncates the text, losing whatever the first window did not "
                    "contain, or it slides a window across the document and pools the scores, paying the "
                    "full cost of attention for every window.",
                    "Our starting observation is simple. When we logged which key positions received more "
                    "than one percent of the attention mass in the last encoder layer, fewer than one "
                    "position in seven did so for any query in our development set. The remaining "
                    "positions were read, multiplied and normalised, and then contributed almost nothing. "
                    "This suggests spending attention where it matters and nowhere else.",
                    "We call the number of key positions that the encoder may attend to the attention "
                    "budget. The budget is fixed per query, independent of document length, so the cost of "
                    "scoring a document grows linearly rather than quadratically with its size.",
                ],
            },
            {
                "heading": "Method",
                "paragraphs": [
                    "A budgeted scorer has two stages. The first stage is a bag-of-terms model with learned "
                    "term weights; it assigns every token position a relevance estimate in a single pass. "
                    "The second stage is a standard cross-encoder whose attention mask admits only the top "
                    "positions under that estimate, plus a window of eight tokens around each of them so "
                    "that local syntax survives. Positions outside the budget are not encoded at all.",
                    "Training proceeds in the usual way for cross-encoders, with one addition: we "
                    "distil the attention distribution of a full-attention teacher into the first stage, so "
                    "that the cheap scorer learns which positions the expensive model would have looked at. "
                    "Without this term the first stage drifts towards rare terms and the budget is wasted "
                    "on proper names.",
                ],
            },
            {
                "heading": "Experiments",
                "paragraphs": [
                    "We evaluate on three collections of long documents: technical reports, court "
                    "decisions and a corpus of open-access theses. Queries are the titles and abstracts "
                    "of documents that cite the target, with the citing sentence removed. We report "
                    "recall at 100 and the time the encoder needs per document on one accelerator.",
                    "With a budget of 12 percent of the tokens, recall at 100 reaches 97 percent of the "
                    "full-attention score on average, and the encoder runs 4.1 times faster. At 6 percent "
                    "the quality drops to 91 percent. Raising the budget beyond 20 percent brings no "
                    "measurable gain on any collection, which agrees with the attention logs above.",
                    "The selected positions are remarkably stable. For pairs of paraphrased queries, 83 "
                    "percent of the budget positions coincide. A service can therefore cache the budget "
                    "per document and query cluster and skip the first stage for most requests.",
                ],
            },
            {
                "heading": "Limitations and outlook",
                "paragraphs": [
                    "Two kinds of content defeat the cheap scorer. Tables are flattened into sequences of "
                    "numbers whose relevance depends on a header many tokens away, and numbered lists "
                    "spread one argument over many short items. In both cases the budget lands on the "
                    "header and misses the content. A layout-aware first stage is the obvious remedy and "
                    "the subject of ongoing work.",
                    "Budgets also interact with document length in a way we did not expect: for very short "
                    "documents a fixed budget is larger than the document, and the method degrades "
                    "gracefully to full attention. We see this as a feature rather than a defect.",
                ],
            },
        ],
        "references": [
            "H. Okafor and L. Brandt. Windowed pooling for passage rankers. Journal of Retrieval Systems, 18(2):101-124, 2021.",
            "S. Lindqvist, R. Amari and P. Duval. Term weights that learn from their encoders. Proceedings of the Conference on Search and Language, 2022.",
            "M. Castellanos. Where cross-encoders look: an attention census. Technical report, Northgate Institute, 2023.",
            "J. Whitcombe and Y. Tanaka. Distilling attention into lexical models. Transactions on Learning for Text, 5:33-51, 2023.",
            "A. Rao and T. Ferreira-Lund. A collection of open-access theses for retrieval research. Data Notes, 2022.",
        ],
    },
    {
        "id": "cs/0101123",
        "title": "A Lock-Free Skip List with Bounded Helping",
        "authors": ["Hendrik Vos", "Laila Mansour"],
        "year": 2001,
        "venue": "Notes on Concurrent Data Structures",
        "abstract": (
            "Lock-free search structures guarantee system-wide progress, but the usual technique of "
            "helping, in which a thread completes the half-finished operation of another, can make a "
            "single operation perform an unbounded amount of foreign work. We present a skip list in "
            "which each operation helps at most two other operations before it retries on its own, and "
            "we show that this bound preserves lock-freedom. On a sixteen-way shared-memory machine the "
            "structure matches the throughput of the best published skip lists under low contention and "
            "has a three times smaller worst-case operation latency under high contention."
        ),
        "sections": [
            {
                "heading": "Introduction",
                "paragraphs": [
                    "A concurrent set that supports insertion, deletion and membership tests is among the "
                    "most frequently needed shared objects. Skip lists are attractive for this purpose "
                    "because their randomised balancing needs no global rebalancing step: every update "
                    "touches a handful of neighbouring nodes, which makes fine-grained synchronisation "
                    "feasible.",
                    "Lock-free skip lists mark a node as logically deleted before physically unlinking "
                    "it. A thread that encounters a marked node must unlink it before it can proceed, "
                    "because its own update may depend on the marked node's successor pointer. This is "
                    "helping. In the worst case a thread can be drawn into a long chain of such repairs, "
                    "each started by a different thread that was delayed at an unfortunate moment.",
                ],
            },
            {
                "heading": "Bounded helping",
                "paragraphs": [
                    "Our structure keeps the customary marking of successor pointers but limits how much "
                    "repair a thread performs on behalf of others. Each operation carries a help counter. "
                    "When a traversal meets a marked node, the thread attempts the unlinking compare-and-swap "
                    "and increments its counter whether or not the attempt succeeds. When the counter "
                    "reaches two, the thread abandons its traversal and restarts from the head of the "
                    "list at the level where it failed, leaving any further repair to the operations that "
                    "follow.",
                    "The restart does not threaten progress. Every abandoned traversal has either unlinked "
                    "a node or observed that another thread did so, and the number of marked nodes is "
                    "bounded by the number of deletions in progress. Hence some operation completes within "
                    "a bounded number of steps of the whole system, which is the definition of "
                    "lock-freedom. Individual operations may still starve, as in every lock-free design.",
                    "A further detail matters in practice. Towers of a deleted node are unlinked from the "
                    "top level downwards, and a thread that finds a marked node at level zero always "
                    "completes that unlinking regardless of its counter, since membership tests at level "
                    "zero must not return a node that is already deleted.",
                ],
            },
            {
                "heading": "Evaluation",
                "paragraphs": [
                    "We measured throughput and per-operation latency on a sixteen-processor shared-memory "
                    "machine with a workload of ten percent insertions, ten percent deletions and eighty "
                    "percent membership tests over keys drawn uniformly from a range of one million. Under "
                    "this load the bounded skip list performed within four percent of the fastest list we "
                    "compared against.",
                    "The difference appears under contention. When all threads update keys from a range of "
                    "only sixty-four, the slowest one percent of operations in the unbounded design took "
                    "more than three times as long as the slowest one percent in ours. Bounded helping "
                    "trades a small number of extra restarts for the removal of long repair chains.",
                ],
            },
            {
                "heading": "Conclusion",
                "paragraphs": [
                    "Helping is a tool for progress, not an obligation without limit. Bounding it keeps the "
                    "guarantee that matters while removing the latency tail that makes lock-free structures "
                    "hard to use in systems with response-time goals. We expect the same counter technique "
                    "to apply to lock-free queues and hash tables with chained buckets.",
                ],
            },
        ],
        "references": [
            "R. Kettering. Marked pointers for concurrent linked lists. Proceedings of the Symposium on Distributed Computing Principles, 1995.",
            "L. Mansour. Progress conditions for shared objects, revisited. Technical report, University of Aldersey, 1999.",
            "D. Farrow and K. Ishikawa. Randomised search structures for multiprocessors. Journal of Parallel Programming, 12(4):211-239, 1998.",
            "H. Vos. Measuring latency tails in shared-memory benchmarks. Workshop on Performance Methodology, 2000.",
        ],
    },
    {
        "id": "2310.04567",
        "title": "Calibrating Uncertainty in Small Weather Ensembles",
        "authors": ["Ingrid Solberg", "Kwame Asante", "Ruth Delacroix"],
        "year": 2023,
        "venue": "Letters in Applied Meteorology",
        "abstract": (
            "Regional forecasting centres often run ensembles of ten members or fewer, too few for the "
            "spread of the ensemble to be a reliable measure of forecast uncertainty. We compare three "
            "post-processing methods that turn a small ensemble into a calibrated predictive "
            "distribution for two-metre temperature and daily precipitation. A simple method that "
            "inflates the ensemble variance by a factor learned per lead time and season performs "
            "within two percent of a neural distributional regression and is far easier to maintain. "
            "For precipitation, however, only a method that models the probability of a dry day "
            "separately achieves reliable forecasts."
        ),
        "sections": [
            {
                "heading": "Motivation",
                "paragraphs": [
                    "An ensemble forecast runs a numerical weather model several times from perturbed "
                    "initial conditions. If the perturbations are chosen well, the spread of the resulting "
                    "forecasts reflects how uncertain the future state of the atmosphere is. With fifty "
                    "members this reasoning is approximately right. With eight members, the number our "
                    "partner centre can afford, the spread is itself a noisy estimate, and it is "
                    "systematically too small.",
                    "Forecasters know this and correct it by experience. Our goal was to replace that "
                    "experience with a transparent statistical step that a small team can run, check and "
                    "explain to the users of its forecasts.",
                ],
            },
            {
                "heading": "Methods compared",
                "paragraphs": [
                    "The first method, variance inflation, fits a normal distribution whose mean is the "
                    "ensemble mean and whose variance is the ensemble variance multiplied by a factor. The "
                    "factor is estimated by minimising the continuous ranked probability score over a "
                    "training window of the previous three years, separately for each lead time and season.",
                    "The second method, non-homogeneous regression, lets both the mean and the variance "
                    "depend linearly on ensemble statistics and on the station's elevation. The third is a "
                    "small neural network that outputs the parameters of the predictive distribution from "
                    "the ensemble members and twenty station features.",
                    "For precipitation all three methods are combined with a censored distribution, and we "
                    "add a fourth variant that first predicts the probability of a dry day with a logistic "
                    "model and then fits the amount on wet days only.",
                ],
            },
            {
                "heading": "Results",
                "paragraphs": [
                    "For temperature, all three methods remove most of the under-dispersion of the raw "
                    "ensemble. The neural network achieves the best score, but variance inflation comes "
                    "within two percent of it at every lead time up to five days. Rank histograms of the "
                    "inflated forecasts are nearly flat; those of the raw ensemble have the familiar "
                    "U shape of an overconfident forecast.",
                    "Precipitation is different. The censored distributions assign too much probability to "
                    "light rain on days that turn out dry, a bias that is invisible in the average score "
                    "but obvious in the reliability diagram for the event of more than one millimetre. "
                    "Only the two-part variant with a separate dry-day model is reliable for that event.",
                ],
            },
            {
                "heading": "Recommendations",
                "paragraphs": [
                    "A centre with a small ensemble should start with variance inflation for temperature: "
                    "it needs one number per lead time and season, which a forecaster can read and "
                    "question. For precipitation, the extra complexity of a two-part model is justified, "
                    "because the users who care most about rain care about whether it rains at all.",
                    "We caution against judging post-processing by the average score alone. In our study "
                    "the method with the best average precipitation score was also the one that misled "
                    "users most often about dry days.",
                ],
            },
        ],
        "references": [
            "P. Hallgren and M. Osei. Under-dispersion in limited-area ensembles. Quarterly Notes in Meteorology, 141:887-902, 2019.",
            "E. Marchetti. Proper scoring rules for the working forecaster. Monographs in Forecast Verification, 2017.",
            "I. Solberg and R. Delacroix. Station features for statistical post-processing. Letters in Applied Meteorology, 9:12-19, 2021.",
            "K. Asante. Censored distributions for daily precipitation. Journal of Hydrometeorological Methods, 22(3):301-318, 2020.",
            "T. Brandvold, A. Nkemelu and S. Park. Rank histograms and what they hide. Forecasting Review, 4:55-70, 2018.",
        ],
    },
    {
        "id": "math/0211045",
        "title": "On the Growth of Lattice Walks Confined to a Wedge",
        "authors": ["Agnieszka Wolan", "Pierre-Louis Marchand"],
        "year": 2002,
        "venue": "Preprint",
        "abstract": (
            "We count walks on the square lattice that start at the origin, use the four unit steps, "
            "and never leave a wedge of opening angle between zero and pi. For rational wedges we "
            "show that the number of walks of length n grows like a constant times 4 to the power n "
            "times n to the power minus pi divided by twice the opening angle, and we give the "
            "constant in closed form for the quarter plane and the octant. The proof combines a "
            "reflection argument with a local limit theorem for the exit time of a planar random "
            "walk from a cone."
        ),
        "sections": [
            {
                "heading": "Statement of results",
                "paragraphs": [
                    "Let W be the wedge of points whose polar angle lies between zero and alpha, where "
                    "alpha is a fixed angle with zero less than alpha less than or equal to pi. Write c(n) "
                    "for the number of nearest-neighbour walks of n steps on the square lattice that start "
                    "at the origin and stay in the closed wedge W. Our main theorem states that c(n) is "
                    "asymptotic to K times 4 to the power n times n to the power minus pi over two alpha, "
                    "for a positive constant K that depends on alpha.",
                    "For alpha equal to pi over two, the quarter plane, the exponent is minus one and the "
                    "constant K equals four over pi. For alpha equal to pi over four the exponent is minus "
                    "two. These two cases admit exact formulas for c(n) as sums of products of binomial "
                    "coefficients, which we use to check the asymptotics numerically up to n equal to "
                    "two thousand.",
                ],
            },
            {
                "heading": "Reflection for rational wedges",
                "paragraphs": [
                    "When alpha is pi divided by an integer m, the reflections in the two boundary lines "
                    "generate a finite dihedral group, and the classical reflection principle expresses "
                    "c(n) as an alternating sum over the group of unconstrained walk counts. Because the "
                    "square lattice is invariant only under reflections in lines at multiples of pi over "
                    "four, this exact method applies only for m equal to one, two or four.",
                    "For other rational angles we embed the problem in a finer lattice on which the "
                    "reflections act, count walks there, and project back. The projection introduces a "
                    "periodic factor that we control with a second-moment estimate. This yields the growth "
                    "exponent for every rational angle, but a closed form for the constant only in the "
                    "cases named above.",
                ],
            },
            {
                "heading": "A local limit theorem",
                "paragraphs": [
                    "The probabilistic half of the argument concerns the time T at which a simple random "
                    "walk first leaves the cone. A classical result shows that the probability that T "
                    "exceeds n decays like n to the power minus pi over two alpha. We need more: the "
                    "probability that the walk is still inside the cone and ends at a given point. We "
                    "prove a local version of the tail estimate, uniform over end points at distance of "
                    "order square root of n from the apex.",
                    "Summing the local estimate over end points recovers the growth of c(n) for all "
                    "angles, rational or not, but without the value of the constant. We conjecture that K "
                    "is a transcendental number whenever alpha is not a rational multiple of pi, and we "
                    "give numerical evidence for the angle one radian.",
                ],
            },
            {
                "heading": "Open questions",
                "paragraphs": [
                    "The method does not extend directly to wedges wider than a half plane, where the walk "
                    "may wind around the apex. We also do not know whether the error term in the main "
                    "theorem is of relative order n to the power minus one half, as our numerical data "
                    "suggest, or smaller.",
                ],
            },
        ],
        "references": [
            "F. Lindemann-Ruiz. Walks in cones and harmonic functions. Annals of Discrete Probability, 7:401-433, 1998.",
            "G. Ostrowski. Reflection groups and lattice path enumeration. Combinatorial Notes, 3:15-40, 1996.",
            "A. Wolan. Exact counts of walks in the octant. Preprint, 2001.",
            "M. Ferrand and H. Kobayashi. Exit times of planar random walks. Journal of Probability Studies, 29(1):77-98, 2000.",
        ],
    },
    {
        "id": "q-bio/0405017",
        "title": "Noise-Driven Switching in a Two-Gene Toggle with Delayed Repression",
        "authors": ["Samuel Okonkwo", "Birte Hallstrom", "Chen Yiling"],
        "year": 2004,
        "venue": "Preprint",
        "abstract": (
            "Two genes that repress each other form a switch with two stable states. We study how a "
            "delay in repression, caused by the time needed to transcribe and translate the "
            "repressor, changes the rate at which molecular noise flips the switch. Stochastic "
            "simulations and a weak-noise analysis agree that a delay of a few minutes lowers the "
            "switching rate by up to an order of magnitude, because the system must hold a "
            "fluctuation for the length of the delay before repression responds. The effect "
            "disappears when the delay exceeds the protein lifetime."
        ),
        "sections": [
            {
                "heading": "Background",
                "paragraphs": [
                    "The genetic toggle switch is the simplest circuit with memory: gene A represses gene "
                    "B and gene B represses gene A. Deterministic models predict that the circuit stays "
                    "forever in whichever state it started. In cells, however, the small number of "
                    "molecules involved makes expression noisy, and the switch flips spontaneously at a "
                    "rate that depends on the strength of that noise.",
                    "Most models of the toggle treat repression as instantaneous: the moment a repressor "
                    "molecule appears, the production rate of the other gene falls. In reality each "
                    "repressor must be transcribed, processed and translated, which takes minutes. We ask "
                    "what this delay does to the stability of the two states.",
                ],
            },
            {
                "heading": "Model",
                "paragraphs": [
                    "We describe each gene by the number of its protein molecules. Proteins are produced "
                    "in bursts whose rate is a decreasing Hill function of the other protein's number "
                    "a time tau earlier, and they are degraded at a constant rate per molecule. We simulate "
                    "the model exactly with a delayed version of the stochastic simulation algorithm and "
                    "compare the results with an analysis of the most likely escape path in the limit of "
                    "large molecule numbers.",
                ],
            },
            {
                "heading": "Results",
                "paragraphs": [
                    "Without delay, the mean time between switches in our reference parameters is about "
                    "eleven hours. A delay of four minutes raises it to thirty hours, and a delay of eight "
                    "minutes to more than four days. The weak-noise analysis explains the trend: to leave "
                    "its state, the circuit must sustain a low level of the dominant repressor for at "
                    "least the delay, since any recovery of the repressor during that time still acts on "
                    "production later. A longer delay therefore demands a longer, and exponentially less "
                    "likely, fluctuation.",
                    "The stabilising effect saturates. Once the delay exceeds the protein lifetime, which "
                    "is about twenty minutes in our parameters, the circuit no longer remembers the "
                    "fluctuation's start, and further delay changes little. For very long delays the "
                    "deterministic model starts to oscillate, and the notion of two stable states breaks "
                    "down altogether.",
                ],
            },
            {
                "heading": "Discussion",
                "paragraphs": [
                    "Our results suggest that the maturation time of repressors is not merely a nuisance "
                    "for circuit design but a parameter that can be tuned to make memory more durable. "
                    "Experiments that insert a slowly maturing tag into one repressor could test this "
                    "prediction directly, by measuring the fraction of cells that switch within a day.",
                ],
            },
        ],
        "references": [
            "N. Adeyemi and J. Korhonen. Bistability in synthetic gene circuits. Journal of Theoretical Cell Biology, 11:201-219, 2001.",
            "B. Hallstrom. Exact simulation of delayed chemical reactions. Computational Biology Letters, 2:44-52, 2003.",
            "R. Vasquez and T. Brennan. Rare events in stochastic gene expression. Physical Biology Notes, 5:301-322, 2002.",
            "S. Okonkwo and C. Yiling. Transcriptional bursts in bacterial repressors. Preprint, 2003.",
        ],
    },
    {
        "id": "2205.11873",
        "title": "Measuring Reading Friction in Scholarly PDF Workflows",
        "authors": ["Jonas Eberhardt", "Priya Natarajan", "Olu Bankole", "Maren Kjeldsen"],
        "year": 2022,
        "venue": "Conference on Reading and Writing Tools",
        "abstract": (
            "Researchers read papers as PDF files but keep notes, quotes and discussions elsewhere. "
            "We logged the window switches, copy operations and file movements of 31 researchers over "
            "two weeks and found that a median of 22 percent of reading time is spent on what we call "
            "reading friction: locating a file, moving text between applications and finding the place "
            "a note refers to. Participants who used a library with synchronised local copies lost "
            "least time. We propose three measures of friction that tool builders can collect without "
            "recording the content of what is read."
        ),
        "sections": [
            {
                "heading": "Introduction",
                "paragraphs": [
                    "Reading a scientific paper is rarely a single activity. A reader opens the file, "
                    "marks a passage, copies a sentence into notes, looks up a cited work, returns to the "
                    "first paper and searches for the page where a definition appeared. Each step crosses "
                    "a boundary between applications, and each crossing costs a little time and attention.",
                    "Tools for scholarly reading have been evaluated mostly by what they add: annotation, "
                    "recommendation, summaries. We instead measure what they remove. Our question is how "
                    "much of a reading session is spent on the mechanics of moving between the document "
                    "and everything around it.",
                ],
            },
            {
                "heading": "Study design",
                "paragraphs": [
                    "Thirty-one researchers from four disciplines installed a logger that recorded, for "
                    "two working weeks, the focused application, clipboard events without their content, "
                    "and file system events in folders that held PDFs. Participants tagged the start and "
                    "end of reading sessions with a hotkey. We then classified every interval of a session "
                    "as reading, writing or friction, using rules that we validated against "
                    "screen recordings of two sessions per participant.",
                    "Friction intervals are those spent searching for a file, in a file dialog, switching "
                    "between windows without input in between, or scrolling through a document to relocate "
                    "a passage that had been visited before.",
                ],
            },
            {
                "heading": "Findings",
                "paragraphs": [
                    "The median participant spent 22 percent of reading time on friction, with a range "
                    "from 9 to 41 percent. The largest single component was relocation: returning to a "
                    "passage seen earlier, often to quote it. Copying a quote into a note took a median of "
                    "eleven seconds and two window switches, and in one case in five the page number of "
                    "the quote was not recorded at all.",
                    "Seven participants used a web library that kept synchronised local copies of their "
                    "PDFs and opened them in the system viewer. Their friction share was eight points "
                    "lower than that of the rest. Interviews suggest the reason: they never searched for "
                    "files, and edits they made to a PDF appeared in the library without any manual "
                    "upload.",
                ],
            },
            {
                "heading": "Measures for tool builders",
                "paragraphs": [
                    "We propose three measures that a reading tool can collect without recording content. "
                    "The switch rate counts focus changes between the document and other applications per "
                    "minute of reading. The relocation share is the fraction of scrolling that revisits a "
                    "region of the document seen in the same session. The quote latency is the time from "
                    "a selection in the document to the moment its text arrives in another application.",
                    "All three fell in our study when participants used features that carry context "
                    "along with text, such as a quote that arrives together with its paper and page. We "
                    "suggest that reading tools report these measures in their evaluations.",
                ],
            },
            {
                "heading": "Limitations",
                "paragraphs": [
                    "Our participants volunteered and were likely more aware of their tools than average. "
                    "Two weeks is long enough to observe habits but not changes of habit. Finally, the "
                    "classification of friction intervals is conservative: time spent thinking while "
                    "switching windows counts as friction, although part of it is reading in disguise.",
                ],
            },
        ],
        "references": [
            "C. Meyers and D. Aho. Annotation practices of doctoral students. Journal of Scholarly Practice, 8:14-29, 2019.",
            "P. Natarajan. Logging without reading: privacy-preserving interaction traces. Workshop on Usable Measurement, 2021.",
            "O. Bankole and J. Eberhardt. The cost of a window switch. Proceedings of the Symposium on Attention and Interfaces, 2020.",
            "M. Kjeldsen. Where did I read that? Relocation in long documents. Reading Research Letters, 3:61-75, 2021.",
            "A. Fontaine and B. Reyes. Reference managers in the wild. Information Work Studies, 12(1):5-26, 2018.",
        ],
    },
    {
        "id": "physics/9803012",
        "title": "Thermal Drift Compensation in Tabletop Interferometers",
        "authors": ["Dorothea Brunnhuber", "Ahmed El-Sayed"],
        "year": 1998,
        "venue": "Instrumentation Notes",
        "abstract": (
            "A Michelson interferometer built on an aluminium breadboard drifts by several fringes per "
            "hour as the laboratory temperature changes by a fraction of a degree. We describe a "
            "compensation scheme that measures the temperature of both arms with thermistors and "
            "corrects the path difference with a piezo actuator, using a model whose two coefficients "
            "are fitted during a fifteen-minute calibration. The scheme reduces the drift from 4.6 "
            "fringes per hour to 0.3 fringes per hour without any enclosure, at a cost of parts that "
            "most teaching laboratories already own."
        ),
        "sections": [
            {
                "heading": "The problem",
                "paragraphs": [
                    "Teaching laboratories and small research groups often build interferometers on "
                    "breadboards in open rooms. The arms expand as the room warms, and because the two arms "
                    "are rarely identical in length and mounting, their expansions do not cancel. A change "
                    "of a tenth of a degree in one arm moves the fringe pattern visibly, which turns every "
                    "slow measurement into a measurement of the air conditioning.",
                    "The standard remedies are an enclosure, a material with low thermal expansion, or an "
                    "active lock to a reference laser. All three are expensive or inconvenient. We wanted a "
                    "correction that works on an ordinary breadboard with the parts already on the shelf.",
                ],
            },
            {
                "heading": "Compensation model",
                "paragraphs": [
                    "We model the path difference as a linear function of the temperatures of the two "
                    "arms, each low-pass filtered with its own time constant to account for the thermal "
                    "mass of the mounts. The model has two expansion coefficients and two time constants. "
                    "The time constants are properties of the mounts and are measured once; the "
                    "coefficients change whenever the setup is rebuilt and are fitted afresh.",
                    "Calibration takes fifteen minutes. With the piezo actuator held fixed, a heat gun "
                    "at low setting warms each arm in turn while a photodiode counts fringes. A least-squares "
                    "fit of the fringe count against the filtered temperatures gives the coefficients. "
                    "During measurements, the controller then drives the piezo with the negative of the "
                    "predicted path change, updated ten times per second.",
                ],
            },
            {
                "heading": "Performance",
                "paragraphs": [
                    "Over eight overnight runs without compensation the fringe pattern drifted by 4.6 "
                    "fringes per hour on average, with a maximum of 9.1. With compensation the average "
                    "drift fell to 0.3 fringes per hour. The residual drift correlates with air pressure, "
                    "which changes the refractive index along the unequal air paths and is not part of "
                    "our model.",
                    "The compensation fails when the temperature changes faster than the model's time "
                    "constants can follow, for example when a door opens next to the table. Such events "
                    "are rare and easy to recognise in the thermistor record, so we flag them rather than "
                    "model them.",
                ],
            },
            {
                "heading": "Practical advice",
                "paragraphs": [
                    "Thermistors should be glued to the mounts, not to the breadboard, since the mounts "
                    "dominate the expansion. The arms should be shielded from direct airflow with simple "
                    "cardboard baffles, which shorten none of the time constants but remove the fastest "
                    "fluctuations. Finally, calibration should be repeated whenever a mirror mount is "
                    "moved, because a new mount means a new coefficient.",
                ],
            },
        ],
        "references": [
            "K. Albrecht. Interferometry for the teaching laboratory. Journal of Physics Education Methods, 14:88-97, 1994.",
            "D. Brunnhuber. Thermal time constants of optical mounts. Instrumentation Notes, 6:23-30, 1997.",
            "S. Rahimi and L. Corrado. Piezo actuators in closed-loop path control. Review of Laboratory Instruments, 31(5):412-420, 1996.",
            "A. El-Sayed. Refractive index of laboratory air and its pressure dependence. Metrology Letters, 2:5-11, 1995.",
        ],
    },
    {
        "id": "2403.07719",
        "title": "Incremental Type Inference for Notebook Cells",
        "authors": ["Felix Marchetti", "Aiyana Whitehorse", "Dmitri Sokolov"],
        "year": 2024,
        "venue": "Workshop on Live Programming",
        "abstract": (
            "Computational notebooks execute cells in an order chosen by the user, which breaks the "
            "assumption of most type checkers that a program is read from top to bottom. We present "
            "an incremental inference that keeps one typing environment per execution history rather "
            "than per file, re-checks only the cells whose inputs changed, and reports errors against "
            "the order in which cells actually ran. In a study of 1,200 public notebooks our checker "
            "flagged 312 stale-variable errors that a file-order checker missed, while re-checking a "
            "typical edit in under 40 milliseconds."
        ),
        "sections": [
            {
                "heading": "Introduction",
                "paragraphs": [
                    "A notebook mixes code, output and prose in cells that can be run in any order and any "
                    "number of times. This freedom is what makes notebooks good for exploration, and it is "
                    "also the source of a familiar class of bugs: a cell uses a variable that was defined "
                    "by a cell that has since been edited or deleted, and the notebook works only until "
                    "the kernel restarts.",
                    "Static type checkers cannot see these bugs because they check the notebook as if it "
                    "were a script in file order. Our checker instead follows the kernel: it knows which "
                    "cells ran, in which order, with which source text, and checks each new cell against "
                    "the environment that the kernel actually holds.",
                ],
            },
            {
                "heading": "Execution-order environments",
                "paragraphs": [
                    "The checker records, for every execution, the cell's source, the names it reads and "
                    "the names it binds together with their inferred types. The typing environment seen by "
                    "a new execution is the fold of all earlier executions in time order. When the user "
                    "edits a cell, its previous bindings remain in the environment, exactly as the kernel "
                    "keeps the previous values, but they are marked as stale.",
                    "A read of a stale name is reported with both the place where the name was bound and "
                    "the edit that made the binding stale. This message turned out to be the most useful "
                    "part of the tool in our user sessions, because it explains an error that otherwise "
                    "appears only after a restart.",
                ],
            },
            {
                "heading": "Incrementality",
                "paragraphs": [
                    "Re-checking the whole history after every execution would be too slow for long "
                    "sessions. We keep a dependency graph from bindings to the executions that read them "
                    "and re-infer an execution only when the type of something it read has changed. Type "
                    "changes are compared structurally, so re-running a cell that produces a value of the "
                    "same type triggers no further work.",
                    "Across the 1,200 notebooks of our study, the median re-check after an edit took 11 "
                    "milliseconds and the 95th percentile 38 milliseconds, well under the delay at which "
                    "users notice feedback in an editor.",
                ],
            },
            {
                "heading": "Evaluation",
                "paragraphs": [
                    "We replayed the recorded execution histories of public notebooks that included them "
                    "and compared our checker with a file-order checker configured with the same type "
                    "rules. Ours reported 312 reads of stale or undefined names that the file-order checker "
                    "missed; we inspected a sample of fifty by hand and found forty-six to be genuine "
                    "defects that would surface on a clean re-run. The file-order checker in turn reported "
                    "errors in 89 notebooks that ran correctly in the recorded order, all of them cells "
                    "placed above the definitions they used.",
                ],
            },
        ],
        "references": [
            "R. Oyelaran and S. Becker. Hidden state in computational notebooks. Proceedings of the Conference on Programming Environments, 2020.",
            "F. Marchetti. Dependency graphs for live programming. Workshop on Live Programming, 2022.",
            "D. Sokolov and A. Whitehorse. A corpus of notebook execution histories. Data Notes, 2023.",
            "L. Grunwald and T. Imai. Structural type comparison for gradual languages. Journal of Type Systems, 9:120-151, 2021.",
            "P. Danvers. Feedback latency in interactive editors. Human Factors in Programming, 15:77-88, 2019.",
        ],
    },
]


def sample_by_id(paper_id: str) -> dict | None:
    for paper in SAMPLE_PAPERS:
        if paper["id"] == paper_id:
            return paper
    return None
